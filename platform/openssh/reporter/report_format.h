/// Datagrams from the library inside sshd and ssh to the responder: one per line, this header followed by the line.
#ifndef OPENSSH_REPORTER_REPORT_FORMAT_H
#define OPENSSH_REPORTER_REPORT_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace openssh {

struct report_header {
    uint32_t magic = 0x31706572;  ///< "rep1"
    /// The process in which the library was loaded, if the sender is one of its children: ssh that goes to the
    /// background continues in a child, and so does its session. Otherwise 0.
    uint32_t forked_from = 0;
    /// Start time of the sender in clock ticks since boot, as in /proc/PID/stat: it reveals that the pid was reused
    /// while the report was queued. 0 if the sender cannot read it.
    uint64_t start_time = 0;
};

/// Maximum length of the line; sshd and ssh log none that is longer.
constexpr size_t longest_reported_line = 1024;

constexpr const char* report_socket_path = "/run/ssh_cfg_agent/session_report.sock";

}  // namespace openssh

#endif
