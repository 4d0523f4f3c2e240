#include "openssh/sessions/process_info.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <memory>
#include <optional>

#include "common/number.h"

namespace openssh {

namespace {

constexpr size_t most_text = 4096;
constexpr unsigned pts_major_first = 136;
constexpr unsigned pts_major_last = 143;
constexpr unsigned minors_of_a_major = 256;

std::string proc_path(pid_t pid, const char* file) {
    return "/proc/" + std::to_string(pid) + "/" + file;
}

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

/// The kernel appends " (deleted)" when the program's file has been replaced.
std::string program_of(pid_t pid) {
    constexpr std::string_view replaced = " (deleted)";
    std::string program = read_link(proc_path(pid, "exe"));
    if (program.ends_with(replaced)) {
        program.resize(program.size() - replaced.size());
    }
    return program;
}

uint32_t terminal_of(int device) {
    const auto number = static_cast<dev_t>(static_cast<unsigned>(device));
    const unsigned first = major(number);
    if (first < pts_major_first || first > pts_major_last) {
        return no_terminal;
    }
    return (first - pts_major_first) * minors_of_a_major + minor(number);
}

/// The n-th field of /proc/PID/stat in the numbering of proc(5); `text` starts after the process name.
template <typename number>
bool take_field(std::string_view text, size_t wanted, number& value) {
    size_t field = 3;
    for (; field < wanted && !text.empty(); ++field) {
        text.remove_prefix(std::min(text.find(' '), text.size() - 1) + 1);
    }
    const auto parsed = number_parse<number>(text.substr(0, text.find_first_of(" \n")));
    value = parsed.value_or(value);
    return field == wanted && parsed.has_value();
}

std::string address_text(const sockaddr_storage& address) {
    std::array<char, INET6_ADDRSTRLEN> text = {};
    if (address.ss_family == AF_INET) {
        const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(address);
        inet_ntop(AF_INET, &ipv4.sin_addr, text.data(), text.size());
    } else if (address.ss_family == AF_INET6) {
        const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(address);
        if (IN6_IS_ADDR_V4MAPPED(&ipv6.sin6_addr)) {
            inet_ntop(AF_INET, &ipv6.sin6_addr.s6_addr[12], text.data(), text.size());
        } else {
            inet_ntop(AF_INET6, &ipv6.sin6_addr, text.data(), text.size());
        }
    }
    return text.data();
}

/// Returns false unless the socket is a connected TCP socket.
bool look_at_socket(int socket_descriptor, std::string* peer, byte_counters* bytes) {
    int protocol = 0;
    socklen_t size = sizeof(protocol);
    sockaddr_storage address = {};
    socklen_t address_size = sizeof(address);
    if (getsockopt(socket_descriptor, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) != 0 || protocol != IPPROTO_TCP ||
        getpeername(socket_descriptor, reinterpret_cast<sockaddr*>(&address), &address_size) != 0) {
        return false;
    }
    if (peer != nullptr) {
        *peer = address_text(address);
    }
    tcp_info info = {};
    size = sizeof(info);
    if (bytes != nullptr && getsockopt(socket_descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
        size > offsetof(tcp_info, tcpi_bytes_received)) {
        *bytes = {.sent = info.tcpi_bytes_acked, .received = info.tcpi_bytes_received, .known = 1};
    }
    return true;
}

}  // namespace

bool parse_process_stat(std::string_view text, process_info& process) {
    constexpr size_t parent_field = 4;
    constexpr size_t terminal_field = 7;
    constexpr size_t start_time_field = 22;
    // The name in parentheses may contain anything, including parentheses and spaces.
    const size_t name_end = text.rfind(") ");
    if (name_end == std::string_view::npos) {
        return false;
    }
    text.remove_prefix(name_end + 2);
    int terminal = 0;
    const bool is_dead = text.starts_with('Z') || text.starts_with('X');
    if (is_dead || !take_field(text, parent_field, process.parent) || !take_field(text, terminal_field, terminal) ||
        !take_field(text, start_time_field, process.start_time)) {
        return false;
    }
    process.terminal = terminal_of(terminal);
    return true;
}

bool read_process(pid_t pid, process_info& process) {
    std::string text;
    if (!read_text(proc_path(pid, "stat"), text) || !parse_process_stat(text, process)) {
        return false;
    }
    process.program = program_of(pid);
    process.name.clear();
    if (read_text(proc_path(pid, "cmdline"), text)) {
        process.name = text.substr(0, text.find('\0'));
    }
    return true;
}

int open_process(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

void look_at_connection(int process_descriptor, pid_t pid, std::string* peer, byte_counters* bytes) {
    const std::string folder = proc_path(pid, "fd");
    const std::unique_ptr<DIR, int (*)(DIR*)> descriptors(opendir(folder.c_str()), closedir);
    while (const dirent* entry = descriptors != nullptr ? readdir(descriptors.get()) : nullptr) {
        const std::optional<int> number = number_parse<int>(entry->d_name);
        if (!number || !read_link(folder + "/" + entry->d_name).starts_with("socket:")) {
            continue;
        }
        // Duplicating the descriptor works in any network namespace. It is closed at once: a duplicate would keep the
        // connection open after the process has closed it.
        const int copy = static_cast<int>(syscall(SYS_pidfd_getfd, process_descriptor, *number, 0));
        if (copy < 0) {
            continue;
        }
        const bool found = look_at_socket(copy, peer, bytes);
        close(copy);
        if (found) {
            return;
        }
    }
}

uint64_t seconds_since_boot() {
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec);
}

}  // namespace openssh
