/// What the kernel knows of a process.
#ifndef OPENSSH_SESSIONS_PROCESS_INFO_H
#define OPENSSH_SESSIONS_PROCESS_INFO_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "openssh/sessions/session_facts.h"

namespace openssh {

struct process_info {
    uint64_t start_time = 0;  ///< in clock ticks since boot; with the number it names one process only
    pid_t parent = 0;
    uint32_t terminal = no_terminal;  ///< N of /dev/pts/N when that is its controlling terminal
    std::string program;              ///< the file that it runs; a program replaced since then keeps its name
    std::string name;                 ///< the first word of its command line
};

/// False when there is no such process, or a dead one.
bool read_process(pid_t pid, process_info& process);

/// The parts that stand in /proc/PID/stat; false when it is none.
bool parse_process_stat(std::string_view text, process_info& process);

/// Opens a descriptor that becomes readable when the process ends; -1 with errno on failure.
int open_process(pid_t pid);

/// Looks at the TCP connection of a process that has one, without keeping it. What `peer` and `bytes` point to stays as it is
/// when there is none or it cannot be seen; either may be null. `peer` is an address without a port.
void look_at_connection(int process_descriptor, pid_t pid, std::string* peer, byte_counters* bytes);

/// Seconds since boot, sleep included.
uint64_t seconds_since_boot();

}  // namespace openssh

#endif
