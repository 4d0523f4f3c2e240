#include "vrf/service_unit.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>

#include "core/debug.h"
#include "core/paths.h"
#include "core/text.h"
#include "platform/enforcement.h"
#include "platform/vrf_table.h"
#include "vrf/server_changes.h"
#include "vrf/shell_command.h"
#include "vrf/trace_points.h"
#include "vrf/vrf_namespace.h"

namespace {

constexpr size_t file_text_size = 4096;
constexpr size_t unit_report_size = 512;
constexpr mode_t file_mode = 0644;
constexpr char file_mode_text[] = "0644";

// The comment and the burst disagree, as on the installed routers.
constexpr char unit_text[] =
    "[Unit]\n"
    "Description=NorvoSSH sshd service\n"
    "#Restricting respawn count to 5 with a time interval of 20 seconds\n"
    "StartLimitIntervalSec=20\n"
    "StartLimitBurst=20\n"
    "\n"
    "[Service]\n"
    "Type=simple\n"
    "SELinuxContext=system_u:system_r:initrc_t:s0\n"
    "EnvironmentFile=%s\n"
    "ExecStart=/sbin/ip $ARG1 $ARG2 $ARG3 $ARG4 $ARG5 $ARG6 $ARG7 $ARG8\n"
    "ExecStop=/bin/kill -s TERM $MAINPID\n"
    "ExecReload=/bin/kill -s HUP $MAINPID\n"
    "KillMode=process\n"
    "Restart=on-failure\n"
    "RestartSec=2\n"
    "\n"
    "[Install]\n"
    "WantedBy=multi-user.target\n";

constexpr char environment_text[] =
    "ARG1=netns\n"
    "ARG2=exec\n"
    "ARG3=vrf-%s\n"
    "ARG4=/pkg/bin/sshd\n"
    "ARG5=-f\n"
    "ARG6=%s%s\n"
    "ARG7=-v\n"
    "ARG8=%u\n"
    "PATH=/pkg/sbin:/pkg/bin:/usr/local/sbin:/usr/sbin:/sbin:/usr/local/bin:/usr/bin:/bin\n"
    "LD_LIBRARY_PATH=/pkg/lib/override:/pkg/lib:/pkg/lib/cerrno:/pkg/lib/mib:/pkg/lib/spp_plugins:"
    "/pkg/thirdparty_lib/lib64:/pkg/thirdparty_lib/lib:/pkg/thirdparty_lib/usr/lib64:/pkg/thirdparty_lib:/usr/lib\n";

/// One of the two files: its debug formats, and the mode traced when writing it fails.
struct file_reports {
    const char* open_failed;
    const char* write_failed;
    const char* traced_mode;
    trace_error_point open_point;
    trace_error_point write_point;
};

constexpr file_reports unit_reports = {
    "%s, File-name:=%s, File-mode:=%s, Error:=%s(0x%x), Service File open failed",
    "%s, File-name:=%s, File-mode:=%s, Error:=%s(0x%x), Service File write failed",
    "0644",
    vrf_trace_unit_open,
    vrf_trace_unit_write,
};

// The traced mode differs from the file's actual one; trace evaluations identify this failure by it.
constexpr file_reports environment_reports = {
    "%s, File-name:=%s, File-mode:=%s, Error:=%s(0x%x), Conf File open failed",
    "%s, File-name:=%s, File-mode:=%s, Error:=%s(0x%x), Config File write failed",
    "0664",
    vrf_trace_environment_open,
    vrf_trace_environment_write,
};

/// The part of a prefixed name after "vrf-". Returns null, logged under `routine`, if the prefix is missing.
const char* name_without_prefix(const char* routine, const char* prefixed_name) {
    if (prefixed_name == nullptr) {
        debug_print("%s - Vrf-name is NULL", routine);
        trace_error(vrf_trace_unit_name_missing);
        return nullptr;
    }
    if (!begins_with(prefixed_name, vrf_namespace_prefix)) {
        debug_print("%s - Vrf name not starting with vrf-", routine);
        trace_error(vrf_trace_unit_name_unprefixed, {prefixed_name});
        return nullptr;
    }
    return prefixed_name + std::strlen(vrf_namespace_prefix);
}

/// Returns 0, or -1 with errno set.
int write_whole(int fd, const char* text, size_t length) {
    while (length > 0) {
        const ssize_t written = write(fd, text, length);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return -1;
        }
        text += written;
        length -= static_cast<size_t>(written);
    }
    return 0;
}

/// Overwrites the beginning of the file. A longer file keeps its tail because it is not truncated.
int overwrite_file(const char* routine, const char* path, const char* text, size_t length,
                   const file_reports& reports) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, file_mode);
    if (fd < 0) {
        const int error = errno;
        debug_print(reports.open_failed, routine, path, file_mode_text, platform_status_text(error), error);
        trace_error(reports.open_point, {path, file_mode_text, error});
        return -1;
    }
    if (write_whole(fd, text, length) != 0) {
        const int error = errno;
        debug_print(reports.write_failed, routine, path, file_mode_text, platform_status_text(error), error);
        trace_error(reports.write_point, {path, reports.traced_mode, error});
        close(fd);
        errno = error;
        return -1;
    }
    close(fd);
    return 0;
}

/// One of the two files with its text.
struct unit_file {
    char path[PATH_MAX];
    char text[file_text_size];
    size_t length;
};

unit_file make_unit(const char* vrf_name) {
    unit_file unit;
    char environment_path[PATH_MAX];
    environment_file_path(vrf_name, environment_path, sizeof environment_path);
    service_unit_path(vrf_name, unit.path, sizeof unit.path);
    unit.length = format_text(unit.text, sizeof unit.text, unit_text, environment_path);
    return unit;
}

unit_file make_environment(const char* vrf_name, uint32_t vrf_id) {
    unit_file environment;
    environment_file_path(vrf_name, environment.path, sizeof environment.path);
    environment.length = format_text(environment.text, sizeof environment.text, environment_text, vrf_name,
                                     paths::vrf_server_file_prefix, vrf_name, vrf_id);
    return environment;
}

int write_file(const char* routine, const unit_file& file, const file_reports& reports) {
    return overwrite_file(routine, file.path, file.text, file.length, reports);
}

/// Whether the file on disk begins with the text: what follows it in a longer file was left by an earlier version.
/// Preserves errno.
bool is_current(const unit_file& file) {
    const int error = errno;
    FILE* present = std::fopen(file.path, "re");
    if (present == nullptr) {
        errno = error;
        return false;
    }
    char text[file_text_size];
    const size_t length = std::fread(text, 1, file.length, present);
    std::fclose(present);
    errno = error;
    return length == file.length && std::memcmp(text, file.text, length) == 0;
}

/// Reports to the platform that the unit is not as configured. Returns -1; errno stays.
int report_unit(const char* vrf_name, const char* what, const char* reason) {
    const int error = errno;
    char subject[unit_report_size];
    char text[unit_report_size];
    format_text(subject, sizeof subject, "unit %s", vrf_name);
    format_text(text, sizeof text, "%s: %s", what, reason);
    enforcement_failed(subject, text);
    errno = error;
    return -1;
}

/// False if that is unknown.
bool systemd_has_read_unit(const char* vrf_name) {
    const std::optional<postponed_unit> unit = query_postponed_unit(vrf_name);
    return unit && unit->is_read;
}

void remove_file(const char* path) {
    if (std::remove(path) != 0) {
        trace_error(vrf_trace_unit_remove, {path, errno});
    }
}

}  // namespace

void service_unit_path(const char* vrf_name, char* path, size_t size) {
    format_text(path, size, "%s%s.service", paths::service_unit_prefix, vrf_name);
}

void environment_file_path(const char* vrf_name, char* path, size_t size) {
    format_text(path, size, "%s%s.conf", paths::environment_file_prefix, vrf_name);
}

int create_sshd_service_config_file(const char* prefixed_name) {
    const char* vrf_name = name_without_prefix(__func__, prefixed_name);
    if (vrf_name == nullptr) {
        return -1;
    }
    uint32_t vrf_id = 0;
    const platform_status status = vrf_table_lookup(vrf_name, &vrf_id);
    if (status != PLATFORM_OK) {
        debug_print("Vrf-name:=%s, Failed to get the vrf id, Error:= %s", vrf_name, platform_status_text(status));
        trace_error(vrf_trace_vrf_id, {vrf_name, status});
        return report_unit(vrf_name, "the number of the VRF is unknown", platform_status_text(status));
    }
    debug_print("%s - vrf-name:=%s, vrfid = %u", __func__, vrf_name, vrf_id);
    const unit_file unit = make_unit(vrf_name);
    const unit_file environment = make_environment(vrf_name, vrf_id);
    if (is_current(unit) && is_current(environment) && systemd_has_read_unit(vrf_name)) {
        return 0;
    }
    if (write_file(__func__, unit, unit_reports) != 0 || write_file(__func__, environment, environment_reports) != 0) {
        return report_unit(vrf_name, "its files cannot be written", std::strerror(errno));
    }
    if (put_off_unit_reload()) {
        return 0;
    }
    if (shell_command_failed("systemctl daemon-reload")) {
        const int error = errno;
        debug_print("Error:=%s(0x%x), Failed to reload systemctl ", platform_status_text(error), error);
        trace_error(vrf_trace_daemon_reload, {vrf_name, error});
        return report_unit(vrf_name, "systemctl daemon-reload failed", platform_status_text(error));
    }
    return 0;
}

bool sshd_service_config_file_is_current(const char* prefixed_name) {
    const char* vrf_name = name_without_prefix(__func__, prefixed_name);
    uint32_t vrf_id = 0;
    return vrf_name != nullptr && vrf_table_lookup(vrf_name, &vrf_id) == PLATFORM_OK &&
           is_current(make_unit(vrf_name)) && is_current(make_environment(vrf_name, vrf_id));
}

void remove_sshd_service_config_file(const char* prefixed_name) {
    const char* vrf_name = name_without_prefix(__func__, prefixed_name);
    if (vrf_name == nullptr) {
        return;
    }
    char path[PATH_MAX];
    service_unit_path(vrf_name, path, sizeof path);
    remove_file(path);
    environment_file_path(vrf_name, path, sizeof path);
    remove_file(path);
}
