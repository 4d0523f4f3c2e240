/// Which of the lines that sshd or ssh writes reach the operator's log or the user's terminal, now that LogVerbose forces
/// some out that were never asked for.
///
/// Part of the library that is loaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_LOG_FILTER_H
#define OPENSSH_REPORTER_LOG_FILTER_H

#include <cstddef>
#include <string_view>

#include "openssh/reporter/log_line.h"

namespace openssh {

struct log_filter {
    /// The highest debug level at which a line came without being forced: what the operator asked for.
    int shown_level = 0;
};

enum class line_fate {
    pass,       ///< an ordinary line, written as it is
    keep_back,  ///< forced out, not for the log
    pass_bare,  ///< forced out, but of a severity that is shown: written without its tag
};

/// Judges a line. `line` is set unless it is an ordinary one.
line_fate judge_line(log_filter& filter, std::string_view written, log_line& line) noexcept;

/// Writes a line as it would stand there if nothing had forced it out, cut to the buffer. Returns its length.
size_t write_bare_line(const log_line& line, char* buffer, size_t size) noexcept;

}  // namespace openssh

#endif
