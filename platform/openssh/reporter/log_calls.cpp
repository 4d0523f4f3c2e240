/// Interposes the C library functions that sshd and ssh log with. Lines forced out for the facts they contain are
/// recorded and suppressed; all others are passed through. Also notices the end of the process.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "openssh/reporter/log_filter.h"
#include "openssh/reporter/recorder.h"
#include "openssh/reporter/title.h"

namespace {

constexpr size_t longest_line = 2048;

openssh::log_filter filter;
/// Set in ssh, which logs to standard error.
bool filters_writes = false;
/// Set if ssh logs to a file. The file is recognised by device and inode, because its descriptor is unknown.
const char* log_file = nullptr;

void pass_on(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Uses vsyslog(), which is not interposed.
void pass_on(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

/// Logs that a session cannot be recorded, because nobody would otherwise know why it is not shown.
void warn_of_failure(int error) {
    if (error != 0) {
        pass_on(LOG_WARNING, "the session is not shown, because it cannot be recorded: %s", strerror(error));
    }
}

/// Decides what happens to a line. If a forced line is shown, its visible form is stored in `bare`.
openssh::line_fate take_line(std::string_view written, char* bare, size_t bare_size, size_t& bare_length) {
    openssh::log_line line;
    const openssh::line_fate fate = openssh::judge_line(filter, written, line);
    if (fate == openssh::line_fate::pass) {
        return fate;
    }
    if (filters_writes) {
        openssh::keep_client_name();
        openssh::record_client_line(line);
    } else {
        openssh::follow_login(line);
        warn_of_failure(openssh::record_server_line(line));
    }
    bare_length = openssh::write_bare_line(line, bare, bare_size);
    return fate;
}

void log_line_of(int priority, const char* format, va_list arguments) {
    char line[longest_line];
    char bare[longest_line];
    va_list same_arguments;
    va_copy(same_arguments, arguments);
    const int length = vsnprintf(line, sizeof(line), format, same_arguments);
    va_end(same_arguments);
    const bool is_whole = length >= 0 && static_cast<size_t>(length) < sizeof(line);
    size_t bare_length = 0;
    const openssh::line_fate fate =
        is_whole ? take_line({line, static_cast<size_t>(length)}, bare, sizeof(bare), bare_length)
                 : openssh::line_fate::pass;
    if (fate == openssh::line_fate::pass) {
        vsyslog(priority, format, arguments);
    } else if (fate == openssh::line_fate::pass_bare) {
        pass_on(priority, "%.*s", static_cast<int>(bare_length), bare);
    }
}

/// ssh writes a log line in a single call, ending with a carriage return and a line feed.
bool is_log_line(const char* text, size_t length) {
    return length > 2 && length < longest_line && text[length - 2] == '\r' && text[length - 1] == '\n';
}

/// Only ssh itself writes to the standard error descriptor: the remote side's output goes through duplicates of it.
bool is_log(int descriptor) {
    struct stat named = {};
    struct stat open_one = {};
    return log_file == nullptr
               ? descriptor == STDERR_FILENO
               : descriptor > STDERR_FILENO && stat(log_file, &named) == 0 && fstat(descriptor, &open_one) == 0 &&
                     named.st_dev == open_one.st_dev && named.st_ino == open_one.st_ino;
}

ssize_t write_plain(int descriptor, const void* bytes, size_t count) {
    return syscall(SYS_write, descriptor, bytes, count);
}

/// Programs that ssh starts for its user must be unaffected, so the library removes itself from the environment.
__attribute__((constructor)) void begin() {
    filters_writes = getenv("SSH_CSM_REPORTS") != nullptr;
    if (filters_writes) {
        unsetenv("SSH_CSM_REPORTS");
        if (const char* path = getenv("SSH_CSM_LOG_FILE")) {
            log_file = strdup(path);
            unsetenv("SSH_CSM_LOG_FILE");
        }
        const char* before = getenv("SSH_CSM_LD_PRELOAD");
        if (before != nullptr) {
            setenv("LD_PRELOAD", before, 1);
            unsetenv("SSH_CSM_LD_PRELOAD");
        } else {
            unsetenv("LD_PRELOAD");
        }
    }
}

__attribute__((destructor)) void end() {
    openssh::end_server_record();
}

}  // namespace

extern "C" {

#pragma GCC visibility push(default)

void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log_line_of(priority, format, arguments);
    va_end(arguments);
}

// Replacements used by programs built with _FORTIFY_SOURCE.
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log_line_of(priority, format, arguments);
    va_end(arguments);
}

ssize_t write(int descriptor, const void* bytes, size_t count) {
    const char* text = static_cast<const char*>(bytes);
    if (!filters_writes || !is_log_line(text, count) || !is_log(descriptor)) {
        return write_plain(descriptor, bytes, count);
    }
    constexpr size_t line_end = 2;
    char bare[longest_line];
    size_t length = 0;
    const openssh::line_fate fate = take_line({text, count}, bare, sizeof(bare) - line_end, length);
    if (fate == openssh::line_fate::pass) {
        return write_plain(descriptor, bytes, count);
    }
    if (fate == openssh::line_fate::pass_bare) {
        bare[length++] = '\r';
        bare[length++] = '\n';
        write_plain(descriptor, bare, length);
    }
    return static_cast<ssize_t>(count);
}

/// sshd ends with exit() when its child has ended the session, but with _exit() when the connection is lost.
void _exit(int status) {
    openssh::end_server_record();
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}

#pragma GCC visibility pop
}
