/// What the library inside sshd and ssh sends to the responder: one datagram a line, this header and then the line.
#ifndef OPENSSH_REPORTER_REPORT_FORMAT_H
#define OPENSSH_REPORTER_REPORT_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace openssh {

struct report_header {
    uint32_t magic = 0x31706572;  ///< "rep1"
    /// The process in which the library began, when the sender is a later one: ssh that goes to the background goes on in a
    /// child, and its session with it. 0 otherwise.
    uint32_t forked_from = 0;
    /// When the sender was started, in clock ticks since boot, as /proc/PID/stat tells it: a number that has found a new owner
    /// while a report lay in the queue is told from the old one by it. 0 when the sender cannot read it.
    uint64_t start_time = 0;
};

/// Of the line; sshd and ssh write none that is longer.
constexpr size_t longest_reported_line = 1024;

constexpr const char* report_socket_path = "/run/ssh_cfg_agent/session_report.sock";

}  // namespace openssh

#endif
