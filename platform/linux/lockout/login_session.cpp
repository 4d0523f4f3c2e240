#include "linux/lockout/login_session.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

#include "common/file_descriptor.h"
#include "common/number.h"
#include "common/process_files.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"
#include "openssh/paths.h"
#include "openssh/sessions/page_reader.h"
#include "openssh/sessions/process_info.h"

namespace {

/// The line of ancestors of a process is much shorter.
constexpr int ancestors_max = 64;

constexpr uint16_t server_ports[] = {22, 830};

std::function<std::optional<login_session>(pid_t)> diverted;

/// Returns the path of sshd as the kernel reports it for a process.
std::string server_program() {
    const openssh::launcher_paths paths;
    char* found = realpath(paths.sshd.c_str(), nullptr);
    std::string resolved = found != nullptr ? found : paths.sshd;
    free(found);
    return resolved;
}

/// Reads what sshd's monitor has recorded about the session of a process. Returns false if the process has no session.
bool read_monitors_page(pid_t pid, const openssh::process_info& process, openssh::session_facts& facts) {
    const std::string name = openssh::session_name({.pid = pid, .start_time = process.start_time});
    const std::string path = std::string(openssh::session_file_folder) + '/' + name;
    const file_descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    return file.get() >= 0 && openssh::is_server_file(file.get()) &&
           openssh::read_page(file.get(), openssh::monitors_page, facts) && facts.pid == pid &&
           facts.start_time == process.start_time;
}

/// Returns the name of the VRF in whose namespace a process runs, or an empty string.
std::string vrf_of_process(pid_t process) {
    struct stat own = {};
    struct stat other = {};
    if (stat(process_file(process, "ns/net").c_str(), &own) != 0) {
        return {};
    }
    for (const std::string& name : namespace_list()) {
        const std::string path = std::string(namespace_directory) + '/' + name;
        if (stat(path.c_str(), &other) == 0 && other.st_ino == own.st_ino && other.st_dev == own.st_dev) {
            return name.substr(std::string_view(namespace_name_prefix).size());
        }
    }
    return {};
}

/// An address and a port as /proc shows them: words of memory in hexadecimal digits, a colon, the port.
struct shown_end {
    ip_octets address = {};
    uint16_t port = 0;
    bool is_ipv6 = false;
};

std::optional<uint32_t> hexadecimal_of(std::string_view digits) {
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    return error == std::errc() && end == digits.data() + digits.size() ? std::optional(value) : std::nullopt;
}

std::optional<shown_end> parse_end(std::string_view text) {
    constexpr size_t word_digits = 8;
    const size_t colon = text.find(':');
    if (colon != word_digits && colon != 4 * word_digits) {
        return std::nullopt;
    }
    shown_end end = {.is_ipv6 = colon != word_digits};
    for (size_t at = 0; at < colon; at += word_digits) {
        const std::optional<uint32_t> word = hexadecimal_of(text.substr(at, word_digits));
        if (!word) {
            return std::nullopt;
        }
        const auto* octets = reinterpret_cast<const uint8_t*>(&*word);
        std::copy(octets, octets + sizeof *word, end.address.begin() + static_cast<ptrdiff_t>(at / 2));
    }
    const std::optional<uint32_t> port = hexadecimal_of(text.substr(colon + 1));
    end.port = static_cast<uint16_t>(port.value_or(0));
    return port ? std::optional(end) : std::nullopt;
}

/// Turns an IPv4 address in an IPv6 address into that IPv4 address.
void unmap(shown_end& end) {
    constexpr std::array<uint8_t, 12> prefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (end.is_ipv6 && std::equal(prefix.begin(), prefix.end(), end.address.begin())) {
        std::rotate(end.address.begin(), end.address.begin() + prefix.size(), end.address.end());
        std::fill(end.address.begin() + 4, end.address.end(), uint8_t{0});
        end.is_ipv6 = false;
    }
}

std::optional<rule_connection> connection_of_process(pid_t process) {
    const std::set<uint64_t> sockets = process_sockets(process);
    for (const char* table : {"net/tcp", "net/tcp6"}) {
        std::ifstream lines(process_file(process, table));
        for (std::string line; std::getline(lines, line);) {
            const std::optional<rule_connection> found = login_connection_in(line, sockets);
            // A forwarded connection has another local port.
            if (found && std::ranges::find(server_ports, found->destination_port) != std::end(server_ports)) {
                return found;
            }
        }
    }
    return std::nullopt;
}

std::string address_text(const rule_connection& connection) {
    std::array<char, INET6_ADDRSTRLEN> text = {};
    inet_ntop(connection.is_ipv6 ? AF_INET6 : AF_INET, connection.source.data(), text.data(), text.size());
    return text.data();
}

std::optional<login_session> find_session(pid_t process) {
    const std::optional<openssh::session_facts> facts = login_facts_of(process, server_program());
    const std::optional<rule_connection> connection =
        facts ? connection_of_process(facts->pid) : std::optional<rule_connection>();
    const std::string vrf_name = connection ? vrf_of_process(facts->pid) : "";
    if (vrf_name.empty()) {
        return std::nullopt;
    }
    const openssh::algorithm_facts& algorithms = facts->algorithms;
    return login_session{.vrf_name = vrf_name,
                         .connection = *connection,
                         .source = address_text(*connection),
                         .user = facts->user,
                         .method = facts->method,
                         .key_type = facts->login.key_type,
                         .key_fingerprint = facts->login.key_fingerprint,
                         .kex = algorithms.kex,
                         .host_key = algorithms.host_key,
                         .in_cipher = algorithms.in_cipher,
                         .out_cipher = algorithms.out_cipher,
                         .in_mac = algorithms.in_mac,
                         .out_mac = algorithms.out_mac};
}

}  // namespace

std::optional<openssh::session_facts> login_facts_of(pid_t pid, const std::string& server) {
    for (int generation = 0; generation < ancestors_max && pid > 1; generation++) {
        openssh::process_info process;
        if (!openssh::read_process(pid, process)) {
            break;
        }
        openssh::session_facts facts;
        if (process.is_roots && process.program == server && read_monitors_page(pid, process, facts)) {
            return facts;
        }
        pid = process.parent;
    }
    return std::nullopt;
}

std::optional<rule_connection> login_connection_in(std::string_view line, const std::set<uint64_t>& sockets) {
    constexpr std::string_view established = "01";
    constexpr size_t inode_place = 9;
    std::istringstream words{std::string(line)};
    std::vector<std::string> columns;
    for (std::string word; columns.size() <= inode_place && words >> word;) {
        columns.push_back(std::move(word));
    }
    if (columns.size() <= inode_place || columns[3] != established ||
        !sockets.contains(number_parse<uint64_t>(columns[inode_place]).value_or(0))) {
        return std::nullopt;
    }
    std::optional<shown_end> server = parse_end(columns[1]);
    std::optional<shown_end> client = parse_end(columns[2]);
    if (!server || !client || server->is_ipv6 != client->is_ipv6) {
        return std::nullopt;
    }
    unmap(*server);
    unmap(*client);
    return rule_connection{.is_ipv6 = client->is_ipv6,
                           .source = client->address,
                           .destination = server->address,
                           .source_port = client->port,
                           .destination_port = server->port};
}

std::optional<login_session> login_session_of(pid_t process) {
    return diverted ? diverted(process) : find_session(process);
}

void login_session_divert(std::function<std::optional<login_session>(pid_t)> find) {
    diverted = std::move(find);
}
