/// Interposes the C library functions that sshd and ssh log with. Lines forced out for the facts they contain are
/// recorded and suppressed; all others are passed through. Also names the server in its log, and notices the end of the
/// process and its time limit.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "openssh/reporter/log_filter.h"
#include "openssh/reporter/login_events.h"
#include "openssh/reporter/recorder.h"
#include "openssh/reporter/title.h"

namespace {

constexpr size_t longest_line = 2048;

openssh::log_filter filter;
/// Set in ssh, which logs to standard error.
bool filters_writes = false;
/// Set if ssh logs to a file. The file is recognised by device and inode, because its descriptor is unknown.
const char* log_file = nullptr;

/// Whether the program has opened the log. sshd does so for each line; its PAM modules leave it to the C library, which then
/// uses the program's name.
bool is_log_open = false;

/// The C library's own function.
template <class function>
function* next_function(const char* name) {
    return reinterpret_cast<function*>(dlsym(RTLD_NEXT, name));
}

void open_log(const char* name, int options, int facility) {
    static auto* const next = next_function<decltype(openlog)>("openlog");
    if (next != nullptr) {
        next(name, options, facility);
    }
}

void close_log() {
    static auto* const next = next_function<decltype(closelog)>("closelog");
    if (next != nullptr) {
        next();
    }
}

/// A server's log name, which tells its VRF; null in ssh, or if the VRF is unknown.
const char* own_log_name() {
    const char* name = filters_writes ? "" : openssh::server_log_name();
    return name[0] == '\0' ? nullptr : name;
}

/// Uses vsyslog(), which is not interposed.
void log_as_it_is(int priority, const char* format, va_list arguments) {
    const char* name = is_log_open ? nullptr : own_log_name();
    if (name != nullptr) {
        open_log(name, LOG_PID, LOG_AUTH);
    }
    vsyslog(priority, format, arguments);
    if (name != nullptr) {
        close_log();
    }
}

void pass_on(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

void pass_on(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log_as_it_is(priority, format, arguments);
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
        openssh::follow_login_line(line);
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
        log_as_it_is(priority, format, arguments);
        if (is_whole && !filters_writes) {
            openssh::follow_ordinary_line({line, static_cast<size_t>(length)});
        }
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

bool was_started_for_connection() {
    char arguments[4096];
    const int file = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
    const ssize_t length = file < 0 ? -1 : read(file, arguments, sizeof(arguments));
    if (file >= 0) {
        close(file);
    }
    return length > 0 && openssh::is_for_connection({arguments, static_cast<size_t>(length)});
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
    } else if (was_started_for_connection()) {
        openssh::begin_login_events();
    }
}

__attribute__((destructor)) void end() {
    openssh::end_login_events();
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

void openlog(const char* name, int options, int facility) {
    const char* own_name = own_log_name();
    is_log_open = true;
    open_log(own_name == nullptr ? name : own_name, options, facility);
}

void closelog() {
    is_log_open = false;
    close_log();
}

/// sshd limits the time for a login with this.
unsigned alarm(unsigned seconds) noexcept {
    itimerval before = {};
    itimerval wanted = {};
    wanted.it_value.tv_sec = static_cast<time_t>(seconds);
    if (!filters_writes) {
        openssh::note_time_limit(seconds);
    }
    setitimer(ITIMER_REAL, &wanted, &before);
    // As in the C library, less than a second is not none.
    constexpr suseconds_t half_a_second = 500'000;
    const bool rounds_up =
        before.it_value.tv_usec >= half_a_second || (before.it_value.tv_usec > 0 && before.it_value.tv_sec == 0);
    return static_cast<unsigned>(before.it_value.tv_sec) + (rounds_up ? 1 : 0);
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
    openssh::end_login_events();
    openssh::end_server_record();
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}

#pragma GCC visibility pop
}
