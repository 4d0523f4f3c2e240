/// Runs for the lifetime of one SSH session as the leader of its process group, so that a reload finds each session once,
/// as the group to be signalled, and sees when it has ended. Its child becomes what sshd wanted to run, with unchanged
/// arguments and environment.
///
/// Installed so that users can execute it but not read it: the kernel then lets no process of the user's look into it or
/// change its memory, from its first instruction on. A session that may only transfer files could otherwise write a program
/// into it.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "openssh/wrapper/session_command.h"

namespace {

/// Signals that end the session if it lets them; the wrapper outlives them.
constexpr int endured_signals[] = {SIGINT, SIGQUIT, SIGABRT, SIGALRM, SIGPIPE, SIGUSR1, SIGUSR2};

pid_t session = 0;

/// The kernel reports a hang-up only to the session leader. A stopped process must be continued to receive it.
void hang_up(int /*number*/) {
    const int before = errno;
    kill(session, SIGHUP);
    kill(session, SIGCONT);
    errno = before;
}

/// An interactive shell leads its own group, which signals to this one do not reach, and ignores SIGTERM: it ends with its
/// terminal. Any process still in this group has received the signal and may have reasons to stay.
void end_session(int number) {
    const int before = errno;
    if (getpgid(session) != getpgrp()) {
        hang_up(number);
    }
    errno = before;
}

void endure(int /*number*/) {}

void handle(int number, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigfillset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
}

/// Handlers rather than ignored signals, which the session would inherit.
void handle_signals(bool has_terminal) {
    for (const int number : endured_signals) {
        handle(number, endure);
    }
    handle(SIGTERM, end_session);
    handle(SIGHUP, has_terminal ? hang_up : endure);
}

/// The peer must see the session's input and output closed as soon as the session closes them.
void let_go_of_the_session() {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        null >= 0 ? dup2(null, fd) : close(fd);
    }
    if (null > STDERR_FILENO) {
        close(null);
    }
}

/// Ends as the session has ended, for sshd to report, but without dumping core.
[[noreturn]] void end_like(int status) {
    if (WIFSIGNALED(status)) {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        std::signal(WTERMSIG(status), SIG_DFL);
        kill(getpid(), WTERMSIG(status));
    }
    _exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
}

[[noreturn]] void wait_for_session() {
    int status = 0;
    while (waitpid(session, &status, 0) < 0) {
        if (errno != EINTR) {
            _exit(1);
        }
    }
    end_like(status);
}

[[noreturn]] void become(const openssh::session_command& command) {
    execve(command.path, command.arguments, command.environment);
    // Same wording as sshd.
    std::perror(command.path);
    _exit(1);
}

}  // namespace

int main() {
    openssh::session_command command;
    if (!openssh::read_session_command(openssh::session_descriptor, command)) {
        std::perror("cannot read the session's command");
        return 1;
    }
    close(openssh::session_descriptor);
    // Signals wait until both processes are ready for them.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before);
    session = fork();
    if (session < 0) {
        std::perror("cannot fork");
        return 1;
    }
    if (session == 0) {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        become(command);
    }
    handle_signals(isatty(STDIN_FILENO) != 0);
    let_go_of_the_session();
    sigprocmask(SIG_SETMASK, &before, nullptr);
    wait_for_session();
}
