/// A line that sshd or ssh logs because its LogVerbose setting names the function that logs it:
/// "debug1: kex.c:choose_kex():929 (pid=8811): kex: algorithm: ecdh-sha2-nistp256 [preauth]".
///
/// Also part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_LOG_LINE_H
#define OPENSSH_REPORTER_LOG_LINE_H

#include <string_view>

namespace openssh {

/// The parts of a line, as views into it.
struct log_line {
    std::string_view severity;  ///< "debug1", "error" ...; empty for messages of the normal level
    std::string_view file;
    std::string_view function;
    unsigned long pid = 0;  ///< of the process that logged the line
    std::string_view text;  ///< the message without the mark of the unprivileged process
    /// Logged by the unprivileged process that talks to a peer who is not authenticated yet.
    bool before_authentication = false;
};

/// Splits a line. Returns false, with `line` unchanged, if the tag of file, function, line number and process is
/// missing.
bool parse_log_line(std::string_view written, log_line& line) noexcept;

/// The number in "debugN: ..." at the start of a line, tagged or not; 0 if there is none.
int debug_level_of(std::string_view written) noexcept;

}  // namespace openssh

#endif
