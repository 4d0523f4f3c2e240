/// Helpers of the session tests: simulated processes with pages, and a session as text.
#ifndef TESTS_UNIT_OPENSSH_SESSION_TEST_H
#define TESTS_UNIT_OPENSSH_SESSION_TEST_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "common/session_list.h"
#include "openssh/sessions/session_table.h"
#include "openssh/sessions/snapshot.h"

namespace openssh_test {

constexpr const char* server_program = "/usr/sbin/sshd";
constexpr const char* client_program = "/usr/bin/ssh";
constexpr const char* client_name = "/pkg/bin/ssh_csm";
constexpr uid_t some_user = 1001;

/// A simulated process; closing its pipe ends it.
struct simulated_process {
    openssh::process_info info;
    bool is_connected = false;
    openssh::byte_counters bytes;
    std::string vrf;
    int page = -1;  ///< a client's memory file
    int writing_end = -1;
};

inline std::map<pid_t, simulated_process>& processes() {
    static std::map<pid_t, simulated_process> all;
    return all;
}

/// The process that each opened descriptor refers to.
inline std::map<int, pid_t>& opened_processes() {
    static std::map<int, pid_t> all;
    return all;
}

inline uint64_t& clock_now() {
    static uint64_t now = 1000;
    return now;
}

inline bool read_simulated(pid_t pid, openssh::process_info& process) {
    const auto found = processes().find(pid);
    if (found == processes().end()) {
        return false;
    }
    process = found->second.info;
    return true;
}

inline std::string program_of_simulated(pid_t pid) {
    openssh::process_info process;
    return read_simulated(pid, process) ? process.program : "";
}

inline std::vector<pid_t> list_simulated() {
    std::vector<pid_t> pids;
    for (const auto& [pid, process] : processes()) {
        pids.push_back(pid);
    }
    return pids;
}

inline int open_simulated(pid_t pid) {
    int ends[2];
    if (processes().count(pid) == 0 || pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    processes()[pid].writing_end = ends[1];
    opened_processes()[ends[0]] = pid;
    return ends[0];
}

/// All pages are at the same descriptor.
inline int copy_simulated(int process, int number) {
    const int page = processes()[opened_processes()[process]].page;
    return number == openssh::first_page_descriptor + 1 && page >= 0 ? dup(page) : -1;
}

inline bool inspect_simulated(int, pid_t pid, openssh::byte_counters& bytes) {
    bytes = processes()[pid].bytes;
    return processes()[pid].is_connected;
}

inline bool peer_of_simulated(int, pid_t pid, openssh::peer_address& peer) {
    openssh::set_field(peer.text, "2001:db8::7");
    peer.port = 4711;
    return processes()[pid].is_connected;
}

inline std::string vrf_of_simulated(pid_t pid) {
    return processes()[pid].vrf;
}

/// Terminal N has been idle for N minutes; from 100 on there are none.
inline int64_t idle_time_of_simulated(uint32_t number) {
    return number < 100 ? int64_t{60} * number : -1;
}

inline uint64_t simulated_time() {
    return clock_now();
}

inline simulated_process& start_process(pid_t pid, const std::string& program, pid_t parent = 1,
                                        uint64_t start_time = 0,
                                        const std::string& name = "norvosshd: operator [priv]") {
    simulated_process process;
    const bool is_roots = program == server_program;
    process.info = {.start_time = start_time != 0 ? start_time : static_cast<uint64_t>(pid) * 10,
                    .parent = parent,
                    .user = is_roots ? 0 : some_user,
                    .is_roots = is_roots,
                    .program = program,
                    .name = name};
    processes()[pid] = process;
    return processes()[pid];
}

inline void end_process(pid_t pid) {
    close(processes()[pid].writing_end);
    if (processes()[pid].page >= 0) {
        close(processes()[pid].page);
    }
    processes().erase(pid);
}

inline openssh::session_table make_table(const std::string& page_folder = "", const std::string& number_folder = "") {
    return {.server_program = server_program,
            .client_program = client_program,
            .client_name = client_name,
            .page_folder = page_folder,
            .numbers = {.folder = number_folder},
            .processes = {.read = read_simulated,
                          .program_of = program_of_simulated,
                          .list = list_simulated,
                          .open = open_simulated,
                          .copy_descriptor = copy_simulated,
                          .look_at_connection = inspect_simulated,
                          .peer_of = peer_of_simulated,
                          .vrf_of = vrf_of_simulated,
                          .idle_time_of_terminal = idle_time_of_simulated,
                          .now = simulated_time}};
}

inline openssh::session_facts facts_of_session(pid_t pid, const char* user = "operator") {
    openssh::session_facts facts;
    facts.pid = facts.first_pid = pid;
    facts.start_time = facts.first_start_time = static_cast<uint64_t>(pid) * 10;
    facts.state = openssh::session_established;
    openssh::set_field(facts.user, user);
    openssh::set_field(facts.host, "10.0.0.7");
    openssh::set_field(facts.method, "password");
    openssh::set_field(facts.algorithms.kex, "ecdh-sha2-nistp256");
    return facts;
}

/// The bytes of a page with these facts.
inline std::string page_of(const openssh::session_facts& facts) {
    openssh::session_page page;
    openssh::write_page(page, facts);
    std::string bytes(openssh::session_page_size, '\0');
    std::memcpy(bytes.data(), &page, sizeof(page));
    return bytes;
}

/// The bytes of a server's file whose session has not reported anything.
inline std::string server_file_of(const openssh::session_facts& facts) {
    return page_of(facts) + std::string(openssh::session_page_size, '\0');
}

/// Creates a client's memory file, sealed as the library does unless otherwise specified.
inline int make_client_file(const std::string& bytes, unsigned seals = openssh::client_page_seals) {
    const int file = memfd_create("page", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (write(file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
        fcntl(file, F_ADD_SEALS, seals) != 0) {
        close(file);
        return -1;
    }
    return file;
}

/// A client with a page.
inline simulated_process& start_client(pid_t pid, const openssh::session_facts& facts, uid_t user = some_user) {
    simulated_process& process = start_process(pid, client_program, 1, 0, client_name);
    process.info.user = user;
    process.is_connected = true;
    process.page = make_client_file(page_of(facts));
    return process;
}
inline simulated_process& start_client(pid_t pid) {
    return start_client(pid, facts_of_session(pid));
}

/// Receives the message about the list of sessions and returns its descriptor; -1 if there is none.
inline int receive_list(int socket, session_list_head& head) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec text = {.iov_base = &head, .iov_len = sizeof(head)};
    msghdr message = {};
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    int file = -1;
    if (recvmsg(socket, &message, MSG_CMSG_CLOEXEC) == static_cast<ssize_t>(sizeof(head)) &&
        CMSG_FIRSTHDR(&message) != nullptr) {
        std::memcpy(&file, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof(file));
    }
    return file;
}

template <size_t size>
std::string text_of_field(const char (&field)[size]) {
    return {field, strnlen(field, size)};
}

/// A snapshot as text.
inline std::string as_text(const session_snapshot& answer) {
    std::ostringstream text;
    text << "session " << answer.session_id << " state " << answer.session_state << " process " << answer.session_pid
         << " version " << answer.protocol_version << "\n";
    text << "user " << text_of_field(answer.user_id) << "\nhost " << text_of_field(answer.remote_host) << "\nmethod "
         << text_of_field(answer.authentication_method) << "\n";
    text << "kex " << text_of_field(answer.kex_algorithm) << "\nhost key " << text_of_field(answer.host_key_algorithm)
         << "\nin " << text_of_field(answer.in_cipher) << " " << text_of_field(answer.in_mac) << "\nout "
         << text_of_field(answer.out_cipher) << " " << text_of_field(answer.out_mac) << "\n";
    text << "rekeys " << answer.rekey_count << " seconds " << text_of_field(answer.time_to_rekey) << " bytes "
         << answer.data_to_rekey << "\n";
    text << "open channels " << answer.open_channels << "\n";
    for (size_t slot = 1; slot < SESSION_CHANNEL_SLOTS; ++slot) {
        if (answer.channel_state[slot - 1] != 0) {
            text << "slot " << slot << " channel " << answer.channel_id[slot] << " state "
                 << answer.channel_state[slot - 1] << " type " << answer.connection_type[slot] << " line "
                 << text_of_field(answer.line[slot]) << "\n";
        }
    }
    return text.str();
}

}  // namespace openssh_test

#endif
