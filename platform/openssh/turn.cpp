#include "openssh/turn.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <thread>

namespace openssh {

namespace {

constexpr std::chrono::milliseconds pause{5};

}  // namespace

turn::turn(const std::string& directory, std::chrono::milliseconds limit)
    : lock(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (lock.get() >= 0 && flock(lock.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(pause);
    }
}

}  // namespace openssh
