/// What the kernel knows about a process, the calling one in particular.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_OWN_PROCESS_H
#define OPENSSH_REPORTER_OWN_PROCESS_H

#include <cstdint>
#include <string_view>

#include "openssh/reporter/session_facts.h"

namespace openssh {

/// Part of /proc/PID/stat.
struct process_stat {
    char state = '?';
    int32_t parent = 0;
    uint64_t start_time = 0;          ///< in clock ticks since boot; together with the pid it identifies a process
    uint32_t terminal = no_terminal;  ///< N of /dev/pts/N if that is its controlling terminal
};

/// Parses the content of /proc/PID/stat. Returns false, with `found` unchanged, if it is malformed.
bool parse_process_stat(std::string_view text, process_stat& found) noexcept;

/// Reads the calling process's stat. Returns false, with `found` unchanged, on failure.
bool read_own_stat(process_stat& found) noexcept;

/// Seconds since boot, including suspended time.
uint64_t seconds_since_boot() noexcept;

}  // namespace openssh

#endif
