#include "aaa_pam/session_limit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace {

// Offsets of the locked bytes, which are beyond any text. A process that counts in order to enter locks the first one.
constexpr off_t entry_byte = 4096;
constexpr off_t first_session_byte = entry_byte + 1;

int open_limit_file(const char* directory, int flags, int* fd) {
    struct stat network;
    if (stat("/proc/self/ns/net", &network) != 0) {
        return errno;
    }
    char path[PATH_MAX];
    // No translation of a server file has such a name.
    const int length =
        snprintf(path, sizeof path, "%s/~sessions-%lu", directory, static_cast<unsigned long>(network.st_ino));
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
        return ENAMETOOLONG;
    }
    *fd = open(path, flags | O_CLOEXEC | O_NOFOLLOW, 0600);
    return *fd < 0 ? errno : 0;
}

struct flock byte_lock(short type, off_t byte) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return lock;
}

int lock_byte(int fd, int command, short type, off_t byte) {
    struct flock lock = byte_lock(type, byte);
    int status = 0;
    do {
        status = fcntl(fd, command, &lock);
    } while (status != 0 && errno == EINTR);
    return status == 0 ? 0 : errno;
}

/// A text that is not a number in the range means no limit.
int read_limit(int fd, uint32_t* limit) {
    char text[16] = {};
    const ssize_t length = pread(fd, text, sizeof text - 1, 0);
    if (length < 0) {
        return errno;
    }
    char* end = nullptr;
    const unsigned long number = strtoul(text, &end, 10);
    *limit = end != text && *end == '\n' && number <= session_limit_max ? static_cast<uint32_t>(number) : 0;
    return 0;
}

int count_sessions(int fd, uint32_t* open) {
    *open = 0;
    for (uint32_t session = 0; session < session_limit_max; ++session) {
        struct flock lock = byte_lock(F_WRLCK, first_session_byte + session);
        if (fcntl(fd, F_OFD_GETLK, &lock) != 0) {
            return errno;
        }
        *open += lock.l_type == F_UNLCK ? 0 : 1;
    }
    return 0;
}

int read_count(int fd, session_count* count) {
    const int error = read_limit(fd, &count->limit);
    return error != 0 || count->limit == 0 ? error : count_sessions(fd, &count->open);
}

/// Locks the first free byte. The caller has found that there is one.
int lock_session(int fd) {
    for (uint32_t session = 0; session < session_limit_max; ++session) {
        const int error = lock_byte(fd, F_OFD_SETLK, F_WRLCK, first_session_byte + session);
        if (error != EAGAIN && error != EACCES) {
            return error;
        }
    }
    return EAGAIN;
}

/// Stores whether the session has been counted, in which case `fd` holds its lock.
int enter(int fd, session_count* count, bool* entered) {
    int error = lock_byte(fd, F_OFD_SETLKW, F_WRLCK, entry_byte);
    if (error != 0) {
        return error;
    }
    error = read_count(fd, count);
    if (error == 0 && count->limit != 0 && !count->is_full()) {
        error = lock_session(fd);
        *entered = error == 0;
        count->open += *entered ? 1 : 0;
    }
    lock_byte(fd, F_OFD_SETLK, F_UNLCK, entry_byte);
    return error;
}

}  // namespace

int session_limit_set(const char* directory, uint32_t limit) {
    // The file is changed in place, because the locks of the open sessions belong to it.
    int fd = -1;
    int error = open_limit_file(directory, O_RDWR | O_CREAT, &fd);
    if (error != 0) {
        return error;
    }
    // The same number of bytes each time, so that a reader sees one number or the other.
    char text[16];
    const int length = snprintf(text, sizeof text, "%10u\n", limit);
    const ssize_t written = pwrite(fd, text, static_cast<size_t>(length), 0);
    if (written != length) {
        error = written < 0 ? errno : ENOSPC;
    }
    close(fd);
    return error;
}

int session_limit_count(const char* directory, session_count* count) {
    *count = {};
    int fd = -1;
    int error = open_limit_file(directory, O_RDWR, &fd);
    if (error != 0) {
        return error == ENOENT ? 0 : error;
    }
    error = read_count(fd, count);
    close(fd);
    return error;
}

int session_limit_enter(const char* directory, session_count* count, int* lock) {
    *count = {};
    *lock = -1;
    int fd = -1;
    int error = open_limit_file(directory, O_RDWR, &fd);
    if (error != 0) {
        return error == ENOENT ? 0 : error;
    }
    bool entered = false;
    error = enter(fd, count, &entered);
    if (entered) {
        *lock = fd;
    } else {
        close(fd);
    }
    return error;
}
