/// The known sessions. Their facts stay in the pages of sshd and ssh and are read when needed.
#ifndef OPENSSH_SESSIONS_SESSION_TABLE_H
#define OPENSSH_SESSIONS_SESSION_TABLE_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "openssh/reporter/own_process.h"
#include "openssh/sessions/page_reader.h"
#include "openssh/sessions/process_info.h"
#include "openssh/sessions/session_numbers.h"

namespace openssh {

/// Access to processes; tests substitute their own.
struct process_source {
    bool (*read)(pid_t pid, process_info& process) = read_process;
    std::string (*program_of)(pid_t pid) = program_of_process;
    std::vector<pid_t> (*list)() = list_processes;
    int (*open)(pid_t pid) = open_process;
    int (*copy_descriptor)(int process_descriptor, int number) = openssh::copy_descriptor;
    bool (*look_at_connection)(int process_descriptor, pid_t pid, byte_counters& bytes) = openssh::look_at_connection;
    bool (*peer_of)(int process_descriptor, pid_t pid, peer_address& peer) = peer_of_connection;
    std::string (*vrf_of)(pid_t pid) = vrf_of_process;
    int64_t (*idle_time_of_terminal)(uint32_t number) = openssh::idle_time_of_terminal;
    uint64_t (*now)() = seconds_since_boot;
};

struct session_entry {
    session_facts facts;  ///< as last read
    int process = -1;     ///< descriptor that becomes readable when the process ends
};

struct session_table {
    std::string server_program;  ///< path of sshd's executable
    std::string client_program;
    std::string client_name;  ///< process name of an outgoing session
    std::string page_folder = session_file_folder;
    session_numbers numbers = {.folder = "/run/ssh_cfg_agent/session_numbers"};
    process_source processes = {};
    std::map<pid_t, session_entry> sessions = {};  ///< by the pid of the process that is queried for the session
};

/// Limits on the number of all sessions and of one ordinary user's outgoing sessions, because each takes descriptors.
constexpr size_t most_sessions = 16384;
constexpr size_t most_sessions_of_user = 64;

enum class found_file {
    taken,     ///< its session has been added to the table
    left_out,  ///< kept for the next look: there is no room for its session, or its page is being written
    invalid,   ///< it has no session: its process is gone, or its creator is not trusted
};

/// Checks a server's file and adds its session to the table. Accepts only sessions of root's sshd.
found_file take_server_file(session_table& table, const std::string& name);

/// Adds the session of a client's process, if it has one. `process` is the information read about it. The session
/// belongs to the user that the kernel reports, whatever the page says.
bool take_client(session_table& table, pid_t pid, const process_info& process);

/// Whether a process is one of the router's clients.
bool is_client(const session_table& table, const process_info& process);

/// Rereads the session's pages and returns its facts. If the pages cannot be read, these are the facts last read.
const session_facts& current_facts(const session_table& table, session_entry& session);

/// Whether an outgoing session still belongs to its process. A session that goes to the background continues in a
/// child, which takes over the page.
bool still_has_page(const session_table& table, const session_entry& session);

/// The name of the file that holds the session's number.
std::string number_key(const session_facts& facts);

/// Forgets a session and closes its descriptor.
void forget_session(session_table& table, pid_t pid);

/// Whether the session's process still exists. Another process with the same pid does not count.
bool is_alive(const session_entry& session);

}  // namespace openssh

#endif
