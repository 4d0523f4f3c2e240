#include "openssh/sessions/sockets.h"

#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

namespace openssh {

int open_listener(const std::string& path) {
    constexpr int listen_queue = 16;
    constexpr mode_t not_for_others = 0177;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::copy(path.begin(), path.end(), address.sun_path);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener < 0) {
        return -1;
    }
    unlink(path.c_str());
    const mode_t mask = umask(not_for_others);
    const bool is_bound = bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    umask(mask);
    if (!is_bound || listen(listener, listen_queue) != 0) {
        close(listener);
        return -1;
    }
    return listener;
}

int accept_connection(int listener) {
    return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

void remove_sockets(const std::string& prefix) {
    const size_t name_start = prefix.rfind('/') + 1;
    const std::string folder = prefix.substr(0, name_start);
    const std::string_view wanted = std::string_view(prefix).substr(name_start);
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), closedir);
    while (const dirent* entry = entries != nullptr ? readdir(entries.get()) : nullptr) {
        const std::string path = folder + entry->d_name;
        struct stat status = {};
        if (std::string_view(entry->d_name).starts_with(wanted) && lstat(path.c_str(), &status) == 0 &&
            S_ISSOCK(status.st_mode)) {
            unlink(path.c_str());
        }
    }
}

}  // namespace openssh
