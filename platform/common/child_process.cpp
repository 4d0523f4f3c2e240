#include "common/child_process.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "common/file_descriptor.h"

bool child_process_prepare(pid_t parent) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    return prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
}

bool child_process_ends_before(pid_t child, std::chrono::steady_clock::time_point deadline) {
    using steady = std::chrono::steady_clock;
    const file_descriptor process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    pollfd waiting = {process.get(), POLLIN, 0};
    int ready = -1;
    do {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady::now()).count();
        ready = process.get() < 0 ? -1 : poll(&waiting, 1, static_cast<int>(std::max<int64_t>(left, 0)));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

int child_process_reap(pid_t child) {
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}
