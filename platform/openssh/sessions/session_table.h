/// The known sessions, updated from reports.
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

/// Access to processes; tests substitute their own.
struct process_source {
    bool (*read)(pid_t pid, process_info& process) = read_process;
    int (*open)(pid_t pid) = open_process;
    void (*look_at_connection)(int process_descriptor, pid_t pid, std::string* peer,
                               byte_counters* bytes) = openssh::look_at_connection;
    uint64_t (*now)() = seconds_since_boot;
};

struct session_entry {
    session_facts facts;
    int process = -1;      ///< descriptor that becomes readable when the process ends
    bool changed = false;  ///< since it was last stored
    bool moved = false;    ///< continues in another process and must be removed here
};

/// An outgoing session whose process has ended, but which may continue in another.
struct ended_session {
    session_facts facts;
    uint64_t at = 0;  ///< seconds since boot
};

struct session_table {
    std::string server_program;  ///< path of sshd's executable
    std::string client_program;
    std::string client_name;  ///< process name of an outgoing session
    process_source processes = {};
    std::map<pid_t, session_entry> sessions = {};
    std::map<pid_t, ended_session> ended = {};
    uint32_t last_session_id = 0;
};

/// Limits on all sessions and on the outgoing sessions of one ordinary user, because users' reports consume memory.
constexpr size_t most_sessions = 4096;
constexpr size_t most_sessions_of_user = 64;

/// How long, and how many, ended outgoing sessions are remembered.
constexpr uint64_t seconds_to_go_on = 10;
constexpr size_t most_ended_sessions = 64;

/// The sender of a report, as reported by the kernel.
struct report_sender {
    pid_t pid = 0;
    uid_t user = 0;
};

/// Processes a report. Returns the pid of the session that was changed or added, or 0 if there is none: malformed
/// reports, reports from processes without a session and irrelevant ones change nothing.
pid_t take_report(session_table& table, const report_sender& sender, std::string_view report);

/// Restores a session that was known before. Returns false, restoring nothing, if its process is gone.
bool restore_session(session_table& table, const session_facts& facts);

/// Forgets a session and closes its descriptor.
void forget_session(session_table& table, pid_t pid);

/// Whether the session's process still exists. Another process with the same pid does not count.
bool is_alive(const session_entry& session);

}  // namespace openssh

#endif
