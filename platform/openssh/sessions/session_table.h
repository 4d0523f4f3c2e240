/// The sessions that are known, and what reports change of them.
#ifndef OPENSSH_SESSIONS_SESSION_TABLE_H
#define OPENSSH_SESSIONS_SESSION_TABLE_H

#include <sys/types.h>

#include <map>
#include <string>
#include <string_view>

#include "openssh/reporter/report_format.h"
#include "openssh/sessions/process_info.h"
#include "openssh/sessions/session_facts.h"

namespace openssh {

/// How the table looks at processes; tests put others in their place.
struct process_source {
    bool (*read)(pid_t pid, process_info& process) = read_process;
    int (*open)(pid_t pid) = open_process;
    void (*look_at_connection)(int process_descriptor, pid_t pid, std::string* peer,
                               byte_counters* bytes) = openssh::look_at_connection;
    uint64_t (*now)() = seconds_since_boot;
};

struct session_entry {
    session_facts facts;
    int process = -1;      ///< tells when the process has ended
    bool changed = false;  ///< since it was last stored
    bool moved = false;    ///< goes on in another process and is to be forgotten here
};

/// An outgoing session whose process has ended and may be going on in another.
struct ended_session {
    session_facts facts;
    uint64_t at = 0;  ///< seconds since boot
};

struct session_table {
    std::string server_program;  ///< the file that sshd runs from
    std::string client_program;
    std::string client_name;  ///< the name that an outgoing session's process goes by
    process_source processes = {};
    std::map<pid_t, session_entry> sessions = {};
    std::map<pid_t, ended_session> ended = {};
    uint32_t last_session_id = 0;
};

/// The most sessions at once, and the most outgoing ones of one user who is not root: reports of users cost memory.
constexpr size_t most_sessions = 4096;
constexpr size_t most_sessions_of_user = 64;

/// How long, and how many, ended outgoing sessions are remembered.
constexpr uint64_t seconds_to_go_on = 10;
constexpr size_t most_ended_sessions = 64;

/// The sender of a report, as the kernel tells it.
struct report_sender {
    pid_t pid = 0;
    uid_t user = 0;
};

/// Takes one report in. Returns the number of the process whose session changed or came, 0 when none did: reports that are
/// malformed, from a process that no session belongs to, or of no interest change nothing.
pid_t take_report(session_table& table, const report_sender& sender, std::string_view report);

/// Takes a session back that was known before. False when its process is gone; then nothing is kept.
bool restore_session(session_table& table, const session_facts& facts);

/// Forgets a session and closes its descriptor.
void forget_session(session_table& table, pid_t pid);

/// Whether the session's process is still there. A number that has a new owner does not count.
bool is_alive(const session_entry& session);

}  // namespace openssh

#endif
