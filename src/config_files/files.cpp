#include "config_files/files.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>

#include "config_files/trace_points.h"
#include "core/debug.h"
#include "core/paths.h"
#include "core/shell_command.h"
#include "core/text.h"
#include "platform/status.h"

namespace {

constexpr mode_t directory_mode = 0755;
constexpr size_t command_size = 2UL * PATH_MAX;

/// Returns whether a failed call with errno means that there is nothing at its path. Other errors say nothing about that.
bool errno_means_absent() {
    return errno == ENOENT || errno == ENOTDIR;
}

}  // namespace

int file_exists(const char* path) {
    if (path == nullptr) {
        return -1;
    }
    FILE* file = std::fopen(path, "re");
    if (file == nullptr) {
        return errno_means_absent() ? 0 : 1;
    }
    std::fclose(file);
    return 1;
}

bool path_may_exist(const char* path) {
    struct stat status;
    return stat(path, &status) == 0 || !errno_means_absent();
}

int create_file_in_dir(const char* directory, const char* file) {
    if (mkdir(directory, directory_mode) != 0 && errno != EEXIST) {
        trace_error(config_files_trace_create, {directory, errno});
        return -1;
    }
    FILE* created = std::fopen(file, "we");
    if (created == nullptr) {
        trace_error(config_files_trace_create, {file, errno});
        return -1;
    }
    return std::fclose(created) == 0 ? 0 : -1;
}

int copy_file(const char* source, const char* destination) {
    debug_print("%s, srcfile:=%s, dstfile:=%s", __func__, source, destination);
    char command[command_size];
    format_text(command, sizeof command, "cp %s %s", source, destination);
    debug_print("%s", command);
    if (run_shell_command(command, copy_limit) != 0) {
        const int error = errno;
        trace_error(config_files_trace_copy, {source, destination, error});
        debug_print("Src-file:=%s, Dst-file:=%s, Error:=%s(0x%x) copy of file failed", source, destination,
                    platform_status_text(error), error);
        errno = error;
        return -1;
    }
    return 0;
}

void vrf_config_file_path(const char* vrf_name, char* path, size_t size) {
    format_text(path, size, "%s%s", paths::vrf_server_file_prefix, vrf_name);
}
