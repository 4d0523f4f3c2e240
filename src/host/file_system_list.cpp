#include "host/file_system_list.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/debug.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/text.h"
#include "host/trace_points.h"
#include "platform/file_system_list.h"

namespace {

constexpr size_t list_size = 1024;  ///< 1023 characters and a NUL
constexpr mode_t list_mode = 0666;

/// Appends within the bounds of the buffer. Returns the length that the text would have without them.
size_t append(char* list, size_t length, const char* text) {
    if (length < list_size) {
        format_text(list + length, list_size - length, "%s", text);
    }
    return length + std::strlen(text);
}

/// Builds the list's text. Returns false if it does not fit.
bool join_names(const char* const* names, char* list) {
    size_t length = 0;
    for (; *names != nullptr; names++) {
        length = append(list, length, *names);
        length = append(list, length, " ");
        if (length >= list_size) {
            return false;
        }
    }
    return true;
}

/// Maps the object after allocating its blocks: otherwise a full file system would raise SIGBUS when the text is
/// written. Returns null with errno set on failure.
char* map_list(int fd) {
    if (ftruncate(fd, list_size) != 0) {
        return nullptr;
    }
    if (const int error = posix_fallocate(fd, 0, list_size); error != 0) {
        errno = error;
        return nullptr;
    }
    void* mapping = mmap(nullptr, list_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return mapping != MAP_FAILED ? static_cast<char*>(mapping) : nullptr;
}

int report(const char* text) {
    const int error = errno;
    log_errno(text);
    trace_error(host_trace_file_system_list, {text, error});
    return -1;
}

}  // namespace

int write_filesystem_list(const char* text) {
    if (text == nullptr) {
        log_error("NULL filesystem list");
        trace_error(host_trace_file_system_list, {"NULL"});
        return -1;
    }
    const int fd = open(paths::file_system_list, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, list_mode);
    if (fd < 0) {
        return report("Failed to open shared memory for platform filesystem list");
    }
    // The process's umask may have removed permissions of a new object.
    if (fchmod(fd, list_mode) != 0) {
        trace_error(host_trace_file_system_list, {"mode", errno});
    }
    char* list = map_list(fd);
    if (list == nullptr) {
        const int result = report("mmap failed for platform filesystem list");
        close(fd);
        return result;
    }
    // The mapping is kept for the lifetime of the process.
    copy_text(list, list_size, text);
    close(fd);
    return 0;
}

int publish_filesystem_list() {
    const char* const* names = file_system_list_get();
    if (names == nullptr) {
        log_error("Failed to get fslist");
        debug_print("Failed to get fslist");
        trace_error(host_trace_file_system_list, {"get"});
        return -1;
    }
    char list[list_size] = {};
    if (!join_names(names, list)) {
        log_text(INFO_GENERAL, "Overflow detected while writing in filesystem array");
        trace_error(host_trace_file_system_list, {"overflow"});
        return -1;
    }
    if (write_filesystem_list(list) != 0) {
        debug_print("Failed to attach fslist in shared memory");
        return -1;
    }
    return 0;
}
