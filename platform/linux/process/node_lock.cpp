#include "linux/process/node_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "common/number.h"
#include "common/text.h"
#include "linux/process/paths.h"
#include "linux/reporting/log_message_internal.h"

namespace {

/// Stays open, and so locked, for the life of the process.
int lock_fd = -1;

/// The process ID that the lock's holder wrote; 0 if it has not written one yet.
long holder_of(int fd) {
    char text[16] = {};
    const ssize_t length = pread(fd, text, sizeof text - 1, 0);
    const std::string_view line(text, length > 0 ? static_cast<size_t>(length) : 0);
    return number_parse<long>(line.substr(0, line.find('\n'))).value_or(0);
}

void report_holder(long holder) {
    if (holder > 0) {
        fprintf(stderr, "%s: Another agent is already running on this node: process %ld\n", log_identifier, holder);
    } else {
        fprintf(stderr, "%s: Another agent is starting on this node\n", log_identifier);
    }
}

int report_failure(int error, const char* operation) {
    fprintf(stderr, "%s: Cannot %s %s: %s\n", log_identifier, operation, runtime_lock_file, strerror(error));
    return error;
}

/// The content of the file is only for people, so a failure to write it is ignored.
void write_holder(int fd) {
    char text[16];
    const size_t length = text_format_into(text, sizeof text, "%ld\n", static_cast<long>(getpid()));
    if (ftruncate(fd, 0) != 0 || pwrite(fd, text, length, 0) != static_cast<ssize_t>(length)) {
        fprintf(stderr, "%s: Cannot write %s\n", log_identifier, runtime_lock_file);
    }
}

}  // namespace

int node_lock_take() {
    if (lock_fd >= 0) {
        return 0;
    }
    if (mkdir(runtime_directory, 0755) != 0 && errno != EEXIST) {
        return report_failure(errno, "create the directory of");
    }
    // Whoever may open the file may lock it, and so keep the agent from starting.
    const int fd = open(runtime_lock_file, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        return report_failure(errno, "open");
    }
    if (fchmod(fd, 0600) != 0) {
        const int error = report_failure(errno, "set the mode of");
        close(fd);
        return error;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        if (error == EWOULDBLOCK) {
            report_holder(holder_of(fd));
        } else {
            report_failure(error, "lock");
        }
        close(fd);
        return error == EWOULDBLOCK ? EBUSY : error;
    }
    write_holder(fd);
    lock_fd = fd;
    return 0;
}

void node_lock_release() {
    if (lock_fd >= 0) {
        close(lock_fd);
        lock_fd = -1;
    }
}
