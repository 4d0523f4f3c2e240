#include "linux/rehearsal/isolated_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <vector>

#include "common/file_descriptor.h"
#include "common/number.h"

namespace {

/// The privileges over files, and to become another user. Without the others nothing of the kernel's state can be
/// changed: no network, no namespace, no clock.
constexpr int kept_capabilities[] = {CAP_CHOWN,  CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER,
                                     CAP_FSETID, CAP_SETGID,       CAP_SETUID};

/// Added to the number of the signal that killed the isolated process, gives the keeper's exit status, as in a shell.
constexpr int killed_by = 128;

/// Signals the kernel raises for a fault of the program itself. Others come from outside, such as SIGKILL when memory
/// runs out. Process 1 of a namespace gets SIGSEGV instead of SIGABRT, which it cannot send to itself.
constexpr int error_signals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS};

std::string failure_of(const char* step) {
    return std::string(step) + ": " + strerror(errno);
}

/// Whether the process of a descriptor from pidfd_open has ended.
bool has_ended(int process) {
    pollfd ended = {process, POLLIN, 0};
    return poll(&ended, 1, 0) != 0;
}

void reset_signals() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// The open descriptors of this process.
std::vector<int> open_descriptors() {
    std::vector<int> open;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc/self/fd"), closedir);
    while (const dirent* entry = directory != nullptr ? readdir(directory.get()) : nullptr) {
        const std::optional<int> number = number_parse<int>(entry->d_name);
        if (number && *number != dirfd(directory.get())) {
            open.push_back(*number);
        }
    }
    return open;
}

/// Replaces every descriptor but one by the null device. They are not closed, because libraries that have kept their
/// numbers must not meet another file there.
std::string let_go_of_descriptors(int kept) {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    const std::vector<int> descriptors = open_descriptors();
    if (null < 0 || descriptors.empty()) {
        return failure_of("cannot let go of the open files");
    }
    for (const int descriptor : descriptors) {
        const int flags = descriptor <= STDERR_FILENO ? 0 : O_CLOEXEC;
        if (descriptor != kept && descriptor != null && dup3(null, descriptor, flags) < 0) {
            return failure_of("cannot let go of an open file");
        }
    }
    return {};
}

bool is_kept(int capability) {
    return std::find(std::begin(kept_capabilities), std::end(kept_capabilities), capability) !=
           std::end(kept_capabilities);
}

/// Also keeps programs from getting the privileges back: by no_new_privs, and where the service may do that, by removing them
/// from the bounding set. What the service itself has not been given is not there to be kept.
std::string drop_privileges() {
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return failure_of("cannot give up privileges");
    }
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    int held = 0;
    for (int capability = 0; (held = prctl(PR_CAPBSET_READ, capability)) >= 0; ++capability) {
        if (held == 0) {
            continue;
        }
        if (is_kept(capability)) {
            data[CAP_TO_INDEX(capability)].permitted |= CAP_TO_MASK(capability);
            data[CAP_TO_INDEX(capability)].effective |= CAP_TO_MASK(capability);
        } else if (prctl(PR_CAPBSET_DROP, capability) != 0 && errno != EPERM) {
            return failure_of("cannot give up privileges");
        }
    }
    return syscall(SYS_capset, &header, data) == 0 ? std::string() : failure_of("cannot give up privileges");
}

/// The service manager must not take this process for the agent.
void forget_service_manager() {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID", "JOURNAL_STREAM", "LISTEN_FDS"}) {
        unsetenv(name);
    }
}

std::string isolate(const std::function<std::string()>& prepare) {
    forget_service_manager();
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return failure_of("cannot separate the mounted file systems");
    }
    const std::string problem = prepare();
    return problem.empty() ? drop_privileges() : problem;
}

void call(const isolated_work& work, int connection, const std::string& problem) {
    try {
        work(connection, problem);
    } catch (...) {
        _exit(EXIT_FAILURE);
    }
}

[[noreturn]] void be_isolated(const std::function<std::string()>& prepare, const isolated_work& work, int connection,
                              int keeper) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || has_ended(keeper)) {
        _exit(EXIT_FAILURE);
    }
    std::string problem;
    try {
        problem = isolate(prepare);
    } catch (...) {
        problem = "out of memory";
    }
    call(work, connection, problem);
    _exit(EXIT_SUCCESS);
}

[[noreturn]] void keep_isolated(const std::function<std::string()>& prepare, const isolated_work& work, int connection,
                                pid_t parent) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
        _exit(EXIT_FAILURE);
    }
    reset_signals();
    if (const std::string problem = let_go_of_descriptors(connection); !problem.empty()) {
        call(work, connection, problem);
        _exit(EXIT_SUCCESS);
    }
    const int self = static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0));
    if (self < 0 || unshare(CLONE_NEWNS | CLONE_NEWPID) != 0) {
        call(work, connection, failure_of("no namespaces can be created"));
        _exit(EXIT_SUCCESS);
    }
    const pid_t isolated = fork();
    if (isolated == 0) {
        be_isolated(prepare, work, connection, self);
    }
    if (isolated < 0) {
        call(work, connection, failure_of("no process can be started"));
        _exit(EXIT_SUCCESS);
    }
    // The parent learns of the other process's end by the end of the connection.
    close(connection);
    int status = 0;
    while (waitpid(isolated, &status, 0) < 0 && errno == EINTR) {
    }
    _exit(WIFSIGNALED(status) ? killed_by + WTERMSIG(status) : EXIT_SUCCESS);
}

}  // namespace

isolated_process::isolated_process(const std::function<std::string()>& prepare, const isolated_work& work) {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        status_ = static_cast<platform_status>(errno);
        return;
    }
    connection_ = ends[0];
    const file_descriptor other_end(ends[1]);
    const pid_t parent = getpid();
    keeper_ = fork();
    if (keeper_ == 0) {
        close(ends[0]);
        keep_isolated(prepare, work, ends[1], parent);
    }
    if (keeper_ < 0) {
        status_ = static_cast<platform_status>(errno);
    }
}

isolated_process::~isolated_process() {
    if (keeper_ > 0) {
        kill(keeper_, SIGKILL);
        while (waitpid(keeper_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    if (connection_ >= 0) {
        close(connection_);
    }
}

int isolated_process::wait_for_crash(std::chrono::milliseconds limit) {
    const file_descriptor keeper(static_cast<int>(syscall(SYS_pidfd_open, keeper_, 0)));
    pollfd ended = {keeper.get(), POLLIN, 0};
    int status = 0;
    if (keeper.get() < 0 || poll(&ended, 1, static_cast<int>(limit.count())) <= 0 ||
        waitpid(keeper_, &status, WNOHANG) != keeper_) {
        return 0;
    }
    keeper_ = -1;
    const int signal = WIFEXITED(status) ? WEXITSTATUS(status) - killed_by : 0;
    return std::ranges::find(error_signals, signal) != std::end(error_signals) ? signal : 0;
}

std::string make_machine_read_only() {
    mount_attr attributes = {};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    return mount_setattr(AT_FDCWD, "/", AT_RECURSIVE, &attributes, sizeof attributes) == 0
               ? std::string()
               : failure_of("the mounted file systems cannot be made read-only");
}
