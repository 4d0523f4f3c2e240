#include "common/process_files.h"

#include <dirent.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string_view>

#include "common/number.h"

namespace {

struct folder_closer {
    void operator()(DIR* folder) const { closedir(folder); }
};

}  // namespace

std::string process_file(pid_t process, const char* name) {
    return "/proc/" + std::to_string(process) + '/' + name;
}

std::set<uint64_t> process_sockets(pid_t process) {
    constexpr std::string_view prefix = "socket:[";
    std::set<uint64_t> sockets;
    const std::unique_ptr<DIR, folder_closer> folder(opendir(process_file(process, "fd").c_str()));
    while (const dirent* entry = folder != nullptr ? readdir(folder.get()) : nullptr) {
        std::array<char, 64> target = {};
        const ssize_t size = readlinkat(dirfd(folder.get()), entry->d_name, target.data(), target.size());
        const std::string_view text(target.data(), size > 0 ? static_cast<size_t>(size) : 0);
        if (text.starts_with(prefix) && text.ends_with(']')) {
            const std::string_view number = text.substr(prefix.size(), text.size() - prefix.size() - 1);
            sockets.insert(number_parse<uint64_t>(number).value_or(0));
        }
    }
    return sockets;
}
