#include "core/shell_command.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <iterator>

#include "core/log.h"
#include "core/trace_points.h"
#include "platform/process_manager.h"
#include "platform/shell_commands.h"

namespace {

using clock_type = std::chrono::steady_clock;

/// How long a killed command may take to disappear. A process that waits for a dead disk ignores even SIGKILL.
constexpr std::chrono::seconds kill_limit(2);

/// How often progress is reported while a command runs.
constexpr std::chrono::milliseconds report_interval(100);

constexpr size_t unreaped_max = 16;

struct command_state {
    uint32_t groups = 0;             ///< begun and not ended
    bool gave_up = false;            ///< on the commands of the present group that have such a limit
    pid_t unreaped[unreaped_max]{};  ///< killed commands that have not disappeared yet; 0 for a free slot
};

command_state state;

/// Keeps SIGCHLD pending, so that sigtimedwait can wait for it. That needs no descriptor, and the agent has to run
/// commands even when it has none left.
class held_child_signal {
  public:
    held_child_signal() {
        sigemptyset(&child_signal_);
        sigaddset(&child_signal_, SIGCHLD);
        sigprocmask(SIG_BLOCK, &child_signal_, &before_);
    }
    held_child_signal(const held_child_signal&) = delete;
    held_child_signal& operator=(const held_child_signal&) = delete;
    ~held_child_signal() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

    /// Waits until a child has ended, or some other signal has arrived, or the deadline has passed.
    void wait_until(clock_type::time_point deadline) const {
        using std::chrono::duration_cast;
        const auto left = std::max(deadline - clock_type::now(), clock_type::duration::zero());
        const auto seconds = duration_cast<std::chrono::seconds>(left);
        timespec time = {};
        time.tv_sec = seconds.count();
        time.tv_nsec = duration_cast<std::chrono::nanoseconds>(left - seconds).count();
        sigtimedwait(&child_signal_, nullptr, &time);
    }

  private:
    sigset_t child_signal_;
    sigset_t before_;
};

/// The attributes and file actions of a shell: a process group of its own, no blocked signals, and its output.
class shell_settings {
  public:
    shell_settings() {
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_init(&attributes_);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawn_file_actions_init(&actions_);
    }
    shell_settings(const shell_settings&) = delete;
    shell_settings& operator=(const shell_settings&) = delete;
    ~shell_settings() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }

    /// Returns 0 or the errno value.
    int start(const char* command, int output, pid_t* child) {
        const int error = output < 0 ? 0 : posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
        char shell[] = "sh";
        char option[] = "-c";
        char* arguments[] = {shell, option, const_cast<char*>(command), nullptr};
        return error != 0 ? error : posix_spawn(child, "/bin/sh", &actions_, &attributes_, arguments, environ);
    }

  private:
    posix_spawnattr_t attributes_;
    posix_spawn_file_actions_t actions_;
};

/// Waits for a child. Returns 0, ETIMEDOUT if it has not ended at the deadline, or the reason why it cannot be waited for.
int wait_for_child(pid_t child, const held_child_signal& signal, clock_type::time_point deadline, int* status) {
    for (;;) {
        const pid_t ended = waitpid(child, status, WNOHANG);
        if (ended != 0) {
            return ended == child ? 0 : errno;
        }
        if (clock_type::now() >= deadline) {
            return ETIMEDOUT;
        }
        signal.wait_until(std::min(deadline, clock_type::now() + report_interval));
        process_manager_waiting();
    }
}

void reap_killed_commands() {
    for (pid_t& child : state.unreaped) {
        if (child != 0 && waitpid(child, nullptr, WNOHANG) != 0) {
            child = 0;
        }
    }
}

void kill_command(pid_t child, const held_child_signal& signal) {
    kill(-child, SIGKILL);
    int status = 0;
    if (wait_for_child(child, signal, clock_type::now() + kill_limit, &status) == ETIMEDOUT) {
        *std::find(std::begin(state.unreaped), std::end(state.unreaped) - 1, 0) = child;
    }
}

void report_time_out(const char* command, const command_limit& limit) {
    log_details("Command did not end in time:", command, "");
    trace_error(core_trace_command_timed_out, {command, limit.milliseconds / 1000});
}

/// Returns 0 with the wait status, or the errno value.
int run(const char* command, const command_limit& limit, int output, int* status) {
    reap_killed_commands();
    const held_child_signal signal;
    const clock_type::time_point deadline = clock_type::now() + std::chrono::milliseconds(limit.milliseconds);
    pid_t child = 0;
    int error = shell_settings().start(command, output, &child);
    if (error == 0) {
        error = wait_for_child(child, signal, deadline, status);
        if (error == ETIMEDOUT) {
            kill_command(child, signal);
            state.gave_up = state.gave_up || limit.give_up;
            report_time_out(command, limit);
        }
    }
    return error;
}

}  // namespace

int run_shell_command(const char* command, const command_limit& limit, int output) {
    const int before = errno;
    int error = ETIMEDOUT;
    int status = 0;
    if (platform_take_command(command, &status) != 0) {
        return status;
    }
    if (state.groups == 0 || !state.gave_up || !limit.give_up) {
        process_manager_progress();
        error = run(command, limit, output, &status);
        process_manager_progress();
    }
    errno = error != 0 ? error : before;
    return error != 0 ? -1 : status;
}

void begin_command_group() {
    if (state.groups++ == 0) {
        state.gave_up = false;
    }
}

void end_command_group() {
    state.groups--;
}
