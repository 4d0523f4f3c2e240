/// What the kernel knows about other processes.
#ifndef OPENSSH_SESSIONS_PROCESS_INFO_H
#define OPENSSH_SESSIONS_PROCESS_INFO_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "openssh/reporter/session_facts.h"

namespace openssh {

struct process_info {
    uint64_t start_time = 0;  ///< in clock ticks since boot; together with the pid it identifies a process
    pid_t parent = 0;
    uid_t user = 0;         ///< the real user
    bool is_roots = false;  ///< it has no other user in any of its roles
    std::string program;    ///< the executable; a replaced one keeps its path
    std::string name;       ///< the first word of its command line
};

/// Returns false if there is no such process or it is dead.
bool read_process(pid_t pid, process_info& process);

/// Takes the users from the content of /proc/PID/status; false if it is malformed.
bool parse_process_users(std::string_view text, process_info& process);

/// The executable alone, which is read faster; empty if it is not known.
std::string program_of_process(pid_t pid);

/// All processes.
std::vector<pid_t> list_processes();

/// Opens a descriptor that becomes readable when the process ends; -1 with errno set on failure.
int open_process(pid_t pid);

/// A duplicate of one of the process's descriptors, which no file system takes part in; -1 with errno set on failure.
int copy_descriptor(int process_descriptor, int number);

/// Inspects the TCP connection of a process without keeping a reference to it. Returns false, with `bytes` unchanged, if
/// there is none or it cannot be inspected.
bool look_at_connection(int process_descriptor, pid_t pid, byte_counters& bytes);

}  // namespace openssh

#endif
