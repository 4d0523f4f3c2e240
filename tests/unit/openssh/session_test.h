/// Helpers of the session-report tests: simulated processes, reports of their log lines, and a session as text.
#ifndef TESTS_UNIT_OPENSSH_SESSION_TEST_H
#define TESTS_UNIT_OPENSSH_SESSION_TEST_H

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "openssh/sessions/session_table.h"
#include "openssh/sessions/snapshot.h"

namespace openssh_test {

constexpr const char* server_program = "/usr/sbin/sshd";
constexpr const char* client_program = "/usr/bin/ssh";
constexpr const char* client_name = "/pkg/bin/ssh_csm";

/// A simulated process; closing its pipe ends it.
struct simulated_process {
    openssh::process_info info;
    std::string peer;
    openssh::byte_counters bytes;
    int writing_end = -1;
};

inline std::map<pid_t, simulated_process>& processes() {
    static std::map<pid_t, simulated_process> all;
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

inline int open_simulated(pid_t pid) {
    int ends[2];
    if (processes().count(pid) == 0 || pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    processes()[pid].writing_end = ends[1];
    return ends[0];
}

inline void inspect_simulated(int, pid_t pid, std::string* peer, openssh::byte_counters* bytes) {
    if (peer != nullptr) {
        *peer = processes()[pid].peer;
    }
    if (bytes != nullptr) {
        *bytes = processes()[pid].bytes;
    }
}

inline uint64_t simulated_time() {
    return clock_now();
}

inline void start_process(pid_t pid, const std::string& program, pid_t parent = 1, uint64_t start_time = 0,
                          const std::string& name = "norvosshd: operator [priv]") {
    simulated_process process;
    process.info = {.start_time = start_time != 0 ? start_time : static_cast<uint64_t>(pid) * 10,
                    .parent = parent,
                    .terminal = 7,
                    .program = program,
                    .name = name};
    processes()[pid] = process;
}

inline void end_process(pid_t pid) {
    close(processes()[pid].writing_end);
    processes().erase(pid);
}

inline openssh::session_table make_table() {
    return {.server_program = server_program,
            .client_program = client_program,
            .client_name = client_name,
            .processes = {.read = read_simulated,
                          .open = open_simulated,
                          .look_at_connection = inspect_simulated,
                          .now = simulated_time}};
}

inline std::string report_of(std::string_view line, uint64_t start_time = 0, uint32_t forked_from = 0) {
    openssh::report_header header;
    header.start_time = start_time;
    header.forked_from = forked_from;
    std::string report(reinterpret_cast<const char*>(&header), sizeof(header));
    return report.append(line);
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
