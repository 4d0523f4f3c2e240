/// A line that sshd or ssh writes to its log because its LogVerbose setting names the place the line comes from:
/// "debug1: kex.c:choose_kex():929 (pid=8811): kex: algorithm: ecdh-sha2-nistp256 [preauth]".
///
/// Also part of the library that is loaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_LOG_LINE_H
#define OPENSSH_REPORTER_LOG_LINE_H

#include <string_view>

namespace openssh {

/// The parts of a line; views into it.
struct log_line {
    std::string_view severity;  ///< "debug1", "error" ...; empty for what an operator is told at the normal level
    std::string_view file;
    std::string_view function;
    unsigned long pid = 0;  ///< of the process that the line is about
    std::string_view text;  ///< without the mark of the unprivileged process
    /// Written by the unprivileged process that speaks with a peer who is not known yet.
    bool before_authentication = false;
};

/// Splits a line; without a tag of file, function, line number and process it is not one and `line` is untouched.
bool parse_log_line(std::string_view written, log_line& line) noexcept;

/// The number in "debugN: ..." at the start of a line, tagged or not; 0 when there is none.
int debug_level_of(std::string_view written) noexcept;

}  // namespace openssh

#endif
