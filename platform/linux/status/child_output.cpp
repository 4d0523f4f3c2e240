#include "linux/status/child_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "common/file_descriptor.h"
#include "common/files.h"

namespace {

using steady = std::chrono::steady_clock;

constexpr size_t output_max = size_t{4} * 1024 * 1024;

[[noreturn]] void work_and_exit(const std::function<int(int fd)>& work, int fd, pid_t parent) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    setpgid(0, 0);
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
        _exit(EXIT_FAILURE);
    }
    int status = EXIT_FAILURE;
    try {
        status = work(fd);
    } catch (...) {
        _exit(EXIT_FAILURE);
    }
    _exit(status);
}

/// Whether the child ends before the deadline.
bool ends_before(pid_t child, steady::time_point deadline) {
    const file_descriptor process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    pollfd waiting = {process.get(), POLLIN, 0};
    int ready = -1;
    do {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady::now()).count();
        ready = process.get() < 0 ? -1 : poll(&waiting, 1, static_cast<int>(std::max<int64_t>(left, 0)));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

int wait_status_of(pid_t child) {
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

}  // namespace

platform_status child_output(const std::function<int(int fd)>& work, std::chrono::milliseconds limit,
                             std::string& output) {
    const steady::time_point deadline = steady::now() + limit;
    // In memory, because a pipe would have to be read while the child runs.
    const file_descriptor written(memfd_create("output", MFD_CLOEXEC));
    if (written.get() < 0) {
        return static_cast<platform_status>(errno);
    }
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        return static_cast<platform_status>(errno);
    }
    if (child == 0) {
        work_and_exit(work, written.get(), parent);
    }
    setpgid(child, child);
    if (!ends_before(child, deadline)) {
        kill(-child, SIGKILL);
        wait_status_of(child);
        return ETIMEDOUT;
    }
    const int status = wait_status_of(child);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return EIO;
    }
    lseek(written.get(), 0, SEEK_SET);
    return file_read_to_end(written.get(), output_max, output);
}
