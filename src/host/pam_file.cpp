#include "host/pam_file.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "config_files/config_writer.h"
#include "config_files/files.h"
#include "core/agent_state.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/paths.h"
#include "host/trace_points.h"
#include "platform/status.h"

namespace {

constexpr size_t event_buffer_size = 1024;
constexpr uint32_t directory_events = IN_DELETE;
constexpr uint32_t parent_events = IN_CREATE | IN_MOVED_TO;
constexpr char service_name[] = "norvosshd";
constexpr int no_watch = -1;

constexpr const char* pieces[] = {
    "#PAM file for norvosshd\n",
    "\n",
    "auth sufficient libqd_aaa_pam.so\n",
    "account sufficient libqd_aaa_pam.so\n",
    "session sufficient libqd_aaa_pam.so\n",
    "\n",
};

/// Watch descriptors: of the directory, and of its parent while the directory does not exist.
int directory_watch = no_watch;
int parent_watch = no_watch;

void report_unwritten(int error) {
    debug_print("Failed to open file:=%s,error:=%s(0x%lx)", paths::pam_file, platform_status_text(error),
                static_cast<unsigned long>(error));
    trace_error(host_trace_pam_file, {paths::pam_file, "w", error});
    errno = error;
    report_file_not_in_force(paths::pam_file);
}

/// Returns 0, or -1 with errno set.
int write_pieces(FILE* file) {
    int result = 0;
    for (const char* piece : pieces) {
        result = std::fprintf(file, "%s", piece) < 0 ? -1 : result;
    }
    return std::fclose(file) == 0 ? result : -1;
}

/// An event in the buffer. `name` is empty if the event has none.
struct watch_event {
    int watch;
    uint32_t mask;
    const char* name;
};

/// Reads the event at `*offset` and advances it. Returns false at the end and for a truncated event.
bool next_event(const char* buffer, size_t length, size_t* offset, watch_event* event) {
    inotify_event header;
    if (length - *offset < sizeof header) {
        return false;
    }
    std::memcpy(&header, buffer + *offset, sizeof header);
    const size_t name_offset = *offset + sizeof header;
    if (length - name_offset < header.len) {
        return false;
    }
    // The kernel pads a name with at least one NUL.
    *event = {header.wd, header.mask, header.len > 0 ? buffer + name_offset : ""};
    *offset = name_offset + header.len;
    return true;
}

/// Restores the file at the first event that reports its deletion; later events need not be looked at.
void restore_deleted_file(const char* buffer, size_t length) {
    watch_event event;
    for (size_t offset = 0; next_event(buffer, length, &offset, &event);) {
        debug_print("Mask:=0x%x, Name:=%s, event received", event.mask, event.name);
        if ((event.mask & IN_DELETE) != 0 && std::strcmp(event.name, service_name) == 0) {
            debug_print("Found Entry:=%s", event.name);
            write_pam_file();
            return;
        }
    }
}

/// Whether events may have been lost: the queue overflowed, or the directory was removed along with its watch.
bool deletions_may_be_missed(const char* buffer, size_t length) {
    watch_event event;
    bool missed = parent_watch != no_watch;
    for (size_t offset = 0; next_event(buffer, length, &offset, &event);) {
        if ((event.mask & IN_IGNORED) != 0 && event.watch == directory_watch) {
            directory_watch = no_watch;
            trace_error(host_trace_pam_watch_lost, {paths::pam_directory});
        }
        missed = missed || (event.mask & IN_Q_OVERFLOW) != 0;
    }
    return missed || directory_watch == no_watch;
}

/// The directory does not exist: watches its parent for its creation.
void await_directory() {
    if (parent_watch == no_watch) {
        parent_watch = inotify_add_watch(agent_handles.pam_inotify, paths::pam_parent_directory, parent_events);
    }
}

void stop_awaiting_directory() {
    if (parent_watch != no_watch) {
        inotify_rm_watch(agent_handles.pam_inotify, parent_watch);
        parent_watch = no_watch;
    }
}

/// Watches the directory again and checks the file in it. Looking once more after the parent is watched catches a
/// directory that is recreated meanwhile.
void restore_watch() {
    if (watch_pam_directory() != 0) {
        await_directory();
        if (watch_pam_directory() != 0) {
            if (errno == ENOENT && parent_watch != no_watch) {
                return;
            }
            // The next deletion will go unnoticed, but this one can be repaired.
            log_errno("Failed to adda watch for Norvossh PAM Config file");
        }
    }
    if (directory_watch != no_watch) {
        stop_awaiting_directory();
    }
    write_pam_file();
}

}  // namespace

// Renamed into place, so that neither a login nor a restarted agent ever reads a partial file.
void write_pam_file_again() {
    FILE* file = std::fopen(paths::pam_temporary_file, "we");
    if (file == nullptr) {
        report_unwritten(errno);
        return;
    }
    if (write_pieces(file) != 0 || std::rename(paths::pam_temporary_file, paths::pam_file) != 0) {
        report_unwritten(errno);
        std::remove(paths::pam_temporary_file);
    }
}

void write_pam_file() {
    if (!pam_file_exists()) {
        write_pam_file_again();
    }
}

bool pam_file_exists() {
    return file_exists(paths::pam_file) == 1;
}

const char* pam_file_difference() {
    FILE* file = std::fopen(paths::pam_file, "re");
    if (file == nullptr) {
        return "is missing";
    }
    bool is_same = true;
    for (const char* piece : pieces) {
        for (; *piece != '\0' && is_same; ++piece) {
            is_same = std::fgetc(file) == *piece;
        }
    }
    is_same = is_same && std::fgetc(file) == EOF;
    std::fclose(file);
    return is_same ? nullptr : "differs from the agent's";
}

int create_pam_inotify() {
    agent_handles.pam_inotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (agent_handles.pam_inotify < 0) {
        trace_error(host_trace_pam_inotify, {errno});
        return -1;
    }
    return 0;
}

int watch_pam_directory() {
    directory_watch = inotify_add_watch(agent_handles.pam_inotify, paths::pam_directory, directory_events);
    if (directory_watch < 0) {
        trace_error(host_trace_pam_watch, {paths::pam_directory, errno});
        directory_watch = no_watch;
        return -1;
    }
    return 0;
}

void pam_config_file_handler(int fd, uint32_t, void*) {
    debug_print("Entered PAM Config File handler");
    char buffer[event_buffer_size];
    const ssize_t length = read(fd, buffer, sizeof buffer);
    if (length < 0) {
        const int error = errno;
        log_errno("Read failed in inotifyevent notification for norvossh_pam_config_fd");
        debug_print("Read failed in inotify event notification fornorvossh_pam_config_fd error:=%s(0x%lx)",
                    platform_status_text(error), static_cast<unsigned long>(error));
        trace_error(host_trace_pam_read, {error});
        return;
    }
    const auto size = static_cast<size_t>(length);
    restore_deleted_file(buffer, size);
    if (deletions_may_be_missed(buffer, size)) {
        restore_watch();
    }
}
