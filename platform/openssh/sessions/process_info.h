/// What the kernel knows about a process.
#ifndef OPENSSH_SESSIONS_PROCESS_INFO_H
#define OPENSSH_SESSIONS_PROCESS_INFO_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "openssh/sessions/session_facts.h"

namespace openssh {

struct process_info {
    uint64_t start_time = 0;  ///< in clock ticks since boot; together with the pid it identifies a process
    pid_t parent = 0;
    uint32_t terminal = no_terminal;  ///< N of /dev/pts/N if that is its controlling terminal
    std::string program;              ///< the executable; a replaced one keeps its path
    std::string name;                 ///< the first word of its command line
};

/// Returns false if there is no such process or it is dead.
bool read_process(pid_t pid, process_info& process);

/// Parses the content of /proc/PID/stat; false if it is malformed.
bool parse_process_stat(std::string_view text, process_info& process);

/// Opens a descriptor that becomes readable when the process ends; -1 with errno set on failure.
int open_process(pid_t pid);

/// Inspects the TCP connection of a process, if it has one, without keeping a reference to it. `peer` (an address
/// without a port) and `bytes` may be null, and are unchanged if there is no connection or it cannot be inspected.
void look_at_connection(int process_descriptor, pid_t pid, std::string* peer, byte_counters* bytes);

/// Seconds since boot, including suspended time.
uint64_t seconds_since_boot();

}  // namespace openssh

#endif
