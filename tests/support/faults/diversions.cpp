/// The calls that the linker redirects (--wrap).
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio_ext.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "core/shell_command.h"
#include "diversion.h"
#include "platform/record_codec.h"

using call_faults::action;
using call_faults::after;
using call_faults::announce;
using call_faults::before;
using call_faults::file_of;
using call_faults::verdict;

namespace {

std::string nothing() {
    return "";
}

std::string text_of(const char* text) {
    return text != nullptr ? text : "NULL";
}

bool own_stream(FILE* file) {
    return file == stdout || file == stderr || file == stdin;
}

/// Makes a stream behave as after a failed call: its error flag is set, and its buffer is lost.
void fail_stream(FILE* file) {
    __fpurge(file);
    file->_flags |= _IO_ERR_SEEN;
}

}  // namespace

// One diverted call: return type, name, parameters, arguments, object, and result on failure.
#define DIVERT(type, name, parameters, arguments, object, failed)                             \
    extern "C" type __real_##name parameters;                                                 \
    extern "C" type __wrap_##name parameters {                                                \
        const verdict decided = before(call_faults::diverted_##name, [&] { return object; }); \
        if (decided.action == action::fail) {                                                 \
            errno = decided.error;                                                            \
            return failed;                                                                    \
        }                                                                                     \
        type result = __real_##name arguments;                                                \
        after(call_faults::diverted_##name);                                                  \
        return result;                                                                        \
    }

// The same for a call that can be limited to a number of bytes, its parameter `size`.
#define DIVERT_SIZED(type, name, parameters, arguments, object)                               \
    extern "C" type __real_##name parameters;                                                 \
    extern "C" type __wrap_##name parameters {                                                \
        const verdict decided = before(call_faults::diverted_##name, [&] { return object; }); \
        if (decided.action == action::fail) {                                                 \
            errno = decided.error;                                                            \
            return -1;                                                                        \
        }                                                                                     \
        if (decided.action == action::cut) {                                                  \
            size = std::min(size, decided.bytes);                                             \
        }                                                                                     \
        type result = __real_##name arguments;                                                \
        after(call_faults::diverted_##name);                                                  \
        return result;                                                                        \
    }

DIVERT(int, creat, (const char* path, mode_t mode), (path, mode), text_of(path), -1)
DIVERT(int, fsync, (int fd), (fd), file_of(fd), -1)
DIVERT(int, fdatasync, (int fd), (fd), file_of(fd), -1)
DIVERT(int, ftruncate, (int fd, off_t size), (fd, size), file_of(fd), -1)
DIVERT(int, rename, (const char* source, const char* target), (source, target), text_of(target), -1)
DIVERT(int, unlink, (const char* path), (path), text_of(path), -1)
DIVERT(int, remove, (const char* path), (path), text_of(path), -1)
DIVERT(int, mkdir, (const char* path, mode_t mode), (path, mode), text_of(path), -1)
DIVERT(int, chmod, (const char* path, mode_t mode), (path, mode), text_of(path), -1)
DIVERT(int, fchmod, (int fd, mode_t mode), (fd, mode), file_of(fd), -1)
DIVERT(int, stat, (const char* path, struct stat* found), (path, found), text_of(path), -1)
DIVERT(int, lstat, (const char* path, struct stat* found), (path, found), text_of(path), -1)
DIVERT(int, fstat, (int fd, struct stat* found), (fd, found), file_of(fd), -1)
DIVERT(int, access, (const char* path, int mode), (path, mode), text_of(path), -1)
DIVERT(DIR*, opendir, (const char* path), (path), text_of(path), nullptr)
DIVERT(FILE*, fopen, (const char* path, const char* mode), (path, mode), text_of(path), nullptr)
DIVERT(FILE*, fdopen, (int fd, const char* mode), (fd, mode), file_of(fd), nullptr)
DIVERT(FILE*, open_memstream, (char** text, size_t* size), (text, size), nothing(), nullptr)
DIVERT(int, kill, (pid_t pid, int signal_number), (pid, signal_number), std::to_string(pid), -1)
DIVERT(int, inotify_init, (), (), nothing(), -1)
DIVERT(int, inotify_init1, (int flags), (flags), nothing(), -1)
DIVERT(int, inotify_add_watch, (int fd, const char* path, uint32_t mask), (fd, path, mask), text_of(path), -1)
DIVERT(int, socket, (int domain, int type, int protocol), (domain, type, protocol), nothing(), -1)
DIVERT(int, bind, (int fd, const struct sockaddr* address, socklen_t size), (fd, address, size), file_of(fd), -1)
DIVERT(int, connect, (int fd, const struct sockaddr* address, socklen_t size), (fd, address, size), file_of(fd), -1)
DIVERT(int, setsockopt, (int fd, int level, int option, const void* value, socklen_t size),
       (fd, level, option, value, size), file_of(fd), -1)
DIVERT(int, shm_open, (const char* name, int flags, mode_t mode), (name, flags, mode), text_of(name), -1)
DIVERT(void*, mmap, (void* address, size_t size, int protection, int flags, int fd, off_t offset),
       (address, size, protection, flags, fd, offset), file_of(fd), MAP_FAILED)
DIVERT(void*, malloc, (size_t size), (size), nothing(), nullptr)
DIVERT(void*, calloc, (size_t count, size_t size), (count, size), nothing(), nullptr)
DIVERT(void*, realloc, (void* memory, size_t size), (memory, size), nothing(), nullptr)
DIVERT(char*, strdup, (const char* text), (text), nothing(), nullptr)
DIVERT(void*, _ZnwmRKSt9nothrow_t, (size_t size, const std::nothrow_t& tag), (size, tag), nothing(), nullptr)
DIVERT(void*, _ZnamRKSt9nothrow_t, (size_t size, const std::nothrow_t& tag), (size, tag), nothing(), nullptr)

// The codec returns a status.
DIVERT(platform_status, record_registration_begin, (record_transaction * *transaction), (transaction), nothing(),
       static_cast<platform_status>(decided.error))
DIVERT(platform_status, record_register, (record_transaction * transaction, const record_descriptor* descriptor),
       (transaction, descriptor), text_of(descriptor->name), static_cast<platform_status>(decided.error))
DIVERT(platform_status, record_registration_end, (record_transaction * transaction), (transaction), nothing(),
       static_cast<platform_status>(decided.error))
DIVERT(platform_status, record_encode,
       (const record_descriptor* descriptor, const void* record, void** encoded, size_t* size),
       (descriptor, record, encoded, size), text_of(descriptor->name), static_cast<platform_status>(decided.error))

DIVERT_SIZED(ssize_t, read, (int fd, void* buffer, size_t size), (fd, buffer, size), file_of(fd))
DIVERT_SIZED(ssize_t, write, (int fd, const void* buffer, size_t size), (fd, buffer, size), file_of(fd))
DIVERT_SIZED(ssize_t, send, (int fd, const void* buffer, size_t size, int flags), (fd, buffer, size, flags),
             file_of(fd))
DIVERT_SIZED(ssize_t, recv, (int fd, void* buffer, size_t size, int flags), (fd, buffer, size, flags), file_of(fd))

extern "C" int __real_open(const char* path, int flags, ...);
extern "C" int __wrap_open(const char* path, int flags, mode_t mode) {
    const verdict decided = before(call_faults::diverted_open, [&] { return text_of(path); });
    if (decided.action == action::fail) {
        errno = decided.error;
        return -1;
    }
    const int fd = __real_open(path, flags, mode);
    after(call_faults::diverted_open);
    return fd;
}

extern "C" int __real_openat(int directory, const char* path, int flags, ...);
extern "C" int __wrap_openat(int directory, const char* path, int flags, mode_t mode) {
    const verdict decided = before(call_faults::diverted_openat, [&] { return text_of(path); });
    if (decided.action == action::fail) {
        errno = decided.error;
        return -1;
    }
    const int fd = __real_openat(directory, path, flags, mode);
    after(call_faults::diverted_openat);
    return fd;
}

// A failed close has closed nevertheless, as in the kernel.
extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd) {
    const verdict decided = before(call_faults::diverted_close, [&] { return file_of(fd); });
    const int result = __real_close(fd);
    if (decided.action == action::fail) {
        errno = decided.error;
        return -1;
    }
    return result;
}

extern "C" int __real_fclose(FILE* file);
extern "C" int __wrap_fclose(FILE* file) {
    const verdict decided = before(call_faults::diverted_fclose, [&] { return file_of(file); });
    if (decided.action == action::fail) {
        __fpurge(file);
        __real_fclose(file);
        errno = decided.error;
        return EOF;
    }
    const int result = __real_fclose(file);
    after(call_faults::diverted_fclose);
    return result;
}

extern "C" int __real_fflush(FILE* file);
extern "C" int __wrap_fflush(FILE* file) {
    if (file == nullptr || own_stream(file)) {
        return __real_fflush(file);
    }
    const verdict decided = before(call_faults::diverted_fflush, [&] { return file_of(file); });
    if (decided.action == action::fail) {
        fail_stream(file);
        errno = decided.error;
        return EOF;
    }
    const int result = __real_fflush(file);
    after(call_faults::diverted_fflush);
    return result;
}

namespace {

/// Checks a call that reads from a stream. Returns false, with errno set, if it must fail.
bool may_read(call_faults::diverted_call call, FILE* file) {
    if (own_stream(file)) {
        return true;
    }
    const verdict decided = before(call, [&] { return file_of(file); });
    if (decided.action != action::fail) {
        return true;
    }
    file->_flags |= _IO_ERR_SEEN;
    errno = decided.error;
    return false;
}

/// Checks a call that writes `size` bytes to a stream. Returns false, with errno set, if it must fail; the part of a
/// short write has then been written.
bool may_write(call_faults::diverted_call call, FILE* file, const char* bytes, size_t size);

}  // namespace

extern "C" char* __real_fgets(char* line, int size, FILE* file);
extern "C" char* __wrap_fgets(char* line, int size, FILE* file) {
    return may_read(call_faults::diverted_fgets, file) ? __real_fgets(line, size, file) : nullptr;
}

extern "C" ssize_t __real_getline(char** line, size_t* size, FILE* file);
extern "C" ssize_t __wrap_getline(char** line, size_t* size, FILE* file) {
    return may_read(call_faults::diverted_getline, file) ? __real_getline(line, size, file) : -1;
}

extern "C" size_t __real_fread(void* buffer, size_t size, size_t count, FILE* file);
extern "C" size_t __wrap_fread(void* buffer, size_t size, size_t count, FILE* file) {
    return may_read(call_faults::diverted_fread, file) ? __real_fread(buffer, size, count, file) : 0;
}

extern "C" int __real_fgetc(FILE* file);
extern "C" int __wrap_fgetc(FILE* file) {
    return may_read(call_faults::diverted_fgetc, file) ? __real_fgetc(file) : EOF;
}

extern "C" size_t __real_fwrite(const void* buffer, size_t size, size_t count, FILE* file);

namespace {

bool may_write(call_faults::diverted_call call, FILE* file, const char* bytes, size_t size) {
    if (own_stream(file)) {
        return true;
    }
    const verdict decided = before(call, [&] { return file_of(file); });
    if (decided.action == action::go_on) {
        return true;
    }
    if (decided.action == action::cut) {
        __real_fwrite(bytes, 1, std::min(size, decided.bytes), file);
        file->_flags |= _IO_ERR_SEEN;
    } else {
        fail_stream(file);
    }
    errno = decided.error;
    return false;
}

}  // namespace

extern "C" size_t __wrap_fwrite(const void* buffer, size_t size, size_t count, FILE* file) {
    if (!may_write(call_faults::diverted_fwrite, file, static_cast<const char*>(buffer), size * count)) {
        return 0;
    }
    const size_t written = __real_fwrite(buffer, size, count, file);
    after(call_faults::diverted_fwrite);
    return written;
}

extern "C" int __real_fputs(const char* text, FILE* file);
extern "C" int __wrap_fputs(const char* text, FILE* file) {
    if (!may_write(call_faults::diverted_fputs, file, text, strlen(text))) {
        return EOF;
    }
    const int result = __real_fputs(text, file);
    after(call_faults::diverted_fputs);
    return result;
}

extern "C" int __real_fputc(int character, FILE* file);
extern "C" int __wrap_fputc(int character, FILE* file) {
    const char byte = static_cast<char>(character);
    if (!may_write(call_faults::diverted_fputc, file, &byte, 1)) {
        return EOF;
    }
    const int result = __real_fputc(character, file);
    after(call_faults::diverted_fputc);
    return result;
}

extern "C" int __real_vfprintf(FILE* file, const char* format, va_list arguments);

namespace {

int divert_printing(call_faults::diverted_call call, FILE* file, const char* format, va_list arguments) {
    char* text = nullptr;
    va_list copy;
    va_copy(copy, arguments);
    const int size = vasprintf(&text, format, copy);
    va_end(copy);
    const bool allowed = size < 0 || may_write(call, file, text, static_cast<size_t>(size));
    const int kept_errno = errno;
    free(text);
    errno = kept_errno;
    if (!allowed) {
        return -1;
    }
    const int result = __real_vfprintf(file, format, arguments);
    after(call);
    return result;
}

}  // namespace

extern "C" int __wrap_vfprintf(FILE* file, const char* format, va_list arguments) {
    return divert_printing(call_faults::diverted_vfprintf, file, format, arguments);
}

extern "C" int __real_fprintf(FILE* file, const char* format, ...);
extern "C" int __wrap_fprintf(FILE* file, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = divert_printing(call_faults::diverted_fprintf, file, format, arguments);
    va_end(arguments);
    return result;
}

// run_shell_command of core/shell_command.h.
extern "C" int __real__Z17run_shell_commandPKcRK13command_limiti(const char* command, const command_limit& limit,
                                                                 int output);
extern "C" int __wrap__Z17run_shell_commandPKcRK13command_limiti(const char* command, const command_limit& limit,
                                                                 int output) {
    announce(command);
    constexpr auto call = call_faults::diverted__Z17run_shell_commandPKcRK13command_limiti;
    const verdict decided = before(call, [&] { return text_of(command); });
    if (decided.action == action::fail || decided.action == action::answer) {
        errno = decided.error;
        return decided.action == action::fail ? -1 : decided.result;
    }
    command_limit shortened = limit;
    shortened.milliseconds = std::min(limit.milliseconds, call_faults::longest_command());
    const int result = __real__Z17run_shell_commandPKcRK13command_limiti(command, shortened, output);
    after(call);
    return result;
}

extern "C" unsigned int __real_sleep(unsigned int seconds);
extern "C" unsigned int __wrap_sleep(unsigned int seconds) {
    before(call_faults::diverted_sleep, [&] { return std::to_string(seconds); });
    const bool skipped = call_faults::sleep_observed(seconds) || call_faults::sleep_skipped(uint64_t{seconds} * 1000);
    return skipped ? 0 : __real_sleep(seconds);
}

extern "C" int __real_usleep(useconds_t microseconds);
extern "C" int __wrap_usleep(useconds_t microseconds) {
    before(call_faults::diverted_usleep, [&] { return std::to_string(microseconds); });
    return call_faults::sleep_skipped(microseconds / 1000) ? 0 : __real_usleep(microseconds);
}

extern "C" int __real_nanosleep(const struct timespec* wanted, struct timespec* left);
extern "C" int __wrap_nanosleep(const struct timespec* wanted, struct timespec* left) {
    before(call_faults::diverted_nanosleep, nothing);
    const uint64_t milliseconds =
        static_cast<uint64_t>(wanted->tv_sec) * 1000 + static_cast<uint64_t>(wanted->tv_nsec) / 1000000;
    return call_faults::sleep_skipped(milliseconds) ? 0 : __real_nanosleep(wanted, left);
}
