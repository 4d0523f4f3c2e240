#include "openssh/sessions/process_info.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>

#include "common/journal_entry.h"
#include "common/number.h"
#include "common/process_files.h"
#include "openssh/reporter/own_process.h"

namespace openssh {

namespace {

constexpr size_t most_text = 4096;

bool read_text(const std::string& path, std::string& text) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    std::array<char, most_text> buffer;
    const ssize_t length = read(file, buffer.data(), buffer.size());
    close(file);
    text.assign(buffer.data(), length > 0 ? static_cast<size_t>(length) : 0);
    return length > 0;
}

std::string read_link(const std::string& path) {
    std::array<char, most_text> buffer;
    const ssize_t length = readlink(path.c_str(), buffer.data(), buffer.size());
    return {buffer.data(), length > 0 ? static_cast<size_t>(length) : 0};
}

using open_folder = std::unique_ptr<DIR, int (*)(DIR*)>;

bool read_stat(pid_t pid, process_info& process) {
    std::string text;
    process_stat stat;
    if (!read_text(process_file(pid, "stat"), text) || !parse_process_stat(text, stat) || stat.state == 'Z' ||
        stat.state == 'X') {
        return false;
    }
    process.start_time = stat.start_time;
    process.parent = stat.parent;
    return true;
}

/// Calls `look` with a copy of each of the process's sockets until it returns true. Duplicating the descriptor works in
/// any network namespace. The copy is closed at once: it would keep the connection open after the process has closed it.
template <class visitor>
bool visit_sockets(int process_descriptor, pid_t pid, visitor look) {
    const std::string folder = process_file(pid, "fd");
    const open_folder descriptors(opendir(folder.c_str()), closedir);
    while (const dirent* entry = descriptors != nullptr ? readdir(descriptors.get()) : nullptr) {
        const std::optional<int> number = number_parse<int>(entry->d_name);
        if (!number || !read_link(folder + "/" + entry->d_name).starts_with("socket:")) {
            continue;
        }
        const int copy = copy_descriptor(process_descriptor, *number);
        if (copy < 0) {
            continue;
        }
        const bool found = look(copy);
        close(copy);
        if (found) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool parse_process_users(std::string_view text, process_info& process) {
    constexpr std::string_view label = "\nUid:";
    constexpr int roles = 4;
    const size_t place = text.find(label);
    if (place == std::string_view::npos) {
        return false;
    }
    text.remove_prefix(place + label.size());
    text = text.substr(0, text.find('\n'));
    bool is_roots = true;
    for (int role = 0; role < roles; ++role) {
        if (!text.starts_with('\t')) {
            return false;
        }
        text.remove_prefix(1);
        const std::string_view word = text.substr(0, text.find('\t'));
        const std::optional<uid_t> user = number_parse<uid_t>(word);
        if (!user) {
            return false;
        }
        if (role == 0) {
            process.user = *user;
        }
        is_roots = is_roots && *user == 0;
        text.remove_prefix(word.size());
    }
    process.is_roots = is_roots;
    return true;
}

/// The kernel appends " (deleted)" when the program's file has been replaced.
std::string program_of_process(pid_t pid) {
    constexpr std::string_view replaced = " (deleted)";
    std::string program = read_link(process_file(pid, "exe"));
    if (program.ends_with(replaced)) {
        program.resize(program.size() - replaced.size());
    }
    return program;
}

bool read_process(pid_t pid, process_info& process) {
    std::string text;
    if (!read_stat(pid, process) || !read_text(process_file(pid, "status"), text) ||
        !parse_process_users(text, process)) {
        return false;
    }
    process.program = program_of_process(pid);
    process.name.clear();
    if (read_text(process_file(pid, "cmdline"), text)) {
        process.name = text.substr(0, text.find('\0'));
    }
    return true;
}

std::vector<pid_t> list_processes() {
    std::vector<pid_t> pids;
    const open_folder entries(opendir("/proc"), closedir);
    while (const dirent* entry = entries != nullptr ? readdir(entries.get()) : nullptr) {
        if (const std::optional<pid_t> pid = number_parse<pid_t>(entry->d_name)) {
            pids.push_back(*pid);
        }
    }
    return pids;
}

int open_process(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

int copy_descriptor(int process_descriptor, int number) {
    return static_cast<int>(syscall(SYS_pidfd_getfd, process_descriptor, number, 0));
}

bool look_at_connection(int process_descriptor, pid_t pid, byte_counters& bytes) {
    return visit_sockets(process_descriptor, pid, [&](int copy) { return look_at_socket(copy, nullptr, &bytes); });
}

bool peer_of_connection(int process_descriptor, pid_t pid, peer_address& peer) {
    const bool found =
        visit_sockets(process_descriptor, pid, [&](int copy) { return look_at_socket(copy, &peer, nullptr); });
    if (char* zone = std::strchr(peer.text, '%'); found && zone != nullptr) {
        *zone = '\0';
    }
    return found;
}

std::string vrf_of_process(pid_t pid) {
    constexpr std::string_view before_name = "sshd_service_";
    constexpr std::string_view after_name = ".service";
    std::string cgroup;
    if (!read_text(process_file(pid, "cgroup"), cgroup)) {
        return {};
    }
    const std::string service = service_of_cgroup(cgroup);
    return service.starts_with(before_name)
               ? service.substr(before_name.size(), service.size() - before_name.size() - after_name.size())
               : std::string();
}

int64_t idle_time_of_terminal(uint32_t number) {
    struct stat status = {};
    timespec now = {};
    const std::string path = "/dev/pts/" + std::to_string(number);
    if (stat(path.c_str(), &status) != 0 || !S_ISCHR(status.st_mode) || clock_gettime(CLOCK_REALTIME, &now) != 0) {
        return -1;
    }
    return std::max<int64_t>(now.tv_sec - status.st_atim.tv_sec, 0);
}

}  // namespace openssh
