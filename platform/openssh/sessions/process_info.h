/// What the kernel knows about other processes.
#ifndef OPENSSH_SESSIONS_PROCESS_INFO_H
#define OPENSSH_SESSIONS_PROCESS_INFO_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "openssh/reporter/connection.h"
#include "openssh/reporter/session_facts.h"

namespace openssh {

struct process_info {
    uint64_t start_time = 0;  ///< in clock ticks since boot; together with the pid it identifies a process
    pid_t parent = 0;
    uid_t user = 0;         ///< the real user
    bool is_roots = false;  ///< all its user ids are root's
    std::string program;    ///< the executable; a replaced one keeps its path
    std::string name;       ///< the first word of its command line
};

/// Returns false if there is no such process or it is dead.
bool read_process(pid_t pid, process_info& process);

/// Parses the user ids in the content of /proc/PID/status. Returns false if it is malformed.
bool parse_process_users(std::string_view text, process_info& process);

/// Only the executable, which is faster to read; empty if it is unknown.
std::string program_of_process(pid_t pid);

/// The pids of all processes.
std::vector<pid_t> list_processes();

/// Opens a descriptor that becomes readable when the process ends; -1 with errno set on failure.
int open_process(pid_t pid);

/// Duplicates one of the process's descriptors without involving any file system; -1 with errno set on failure.
int copy_descriptor(int process_descriptor, int number);

/// Inspects the TCP connection of a process without keeping a reference to it. Returns false, with `bytes` unchanged, if
/// there is none or it cannot be inspected.
bool look_at_connection(int process_descriptor, pid_t pid, byte_counters& bytes);

/// Stores the peer of such a connection in `peer`, without the zone of a link-local address, whose name is known only in the
/// process's network namespace. Returns false, with `peer` unchanged, if there is none or it cannot be inspected.
bool peer_of_connection(int process_descriptor, pid_t pid, peer_address& peer);

/// Returns the VRF of a server's process before its login, or an empty string if the process does not belong to a server.
std::string vrf_of_process(pid_t pid);

/// Returns the seconds since the last input on /dev/pts/`number`, or a negative number if there is no such terminal.
int64_t idle_time_of_terminal(uint32_t number);

}  // namespace openssh

#endif
