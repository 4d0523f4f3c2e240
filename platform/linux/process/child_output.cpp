#include "linux/process/child_output.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "common/child_process.h"
#include "common/file_descriptor.h"
#include "common/files.h"

namespace {

using steady = std::chrono::steady_clock;

constexpr size_t output_max = size_t{4} * 1024 * 1024;

[[noreturn]] void work_and_exit(const std::function<int(int fd)>& work, int fd, pid_t parent) {
    setpgid(0, 0);
    if (!child_process_prepare(parent)) {
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
    if (!child_process_ends_before(child, deadline)) {
        kill(-child, SIGKILL);
        child_process_reap(child);
        return ETIMEDOUT;
    }
    const int status = child_process_reap(child);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return EIO;
    }
    lseek(written.get(), 0, SEEK_SET);
    return file_read_to_end(written.get(), output_max, output);
}
