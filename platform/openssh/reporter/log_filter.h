/// Decides which lines of sshd or ssh reach the operator's log or the user's terminal, since LogVerbose also forces out
/// lines below the operator's log level.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_LOG_FILTER_H
#define OPENSSH_REPORTER_LOG_FILTER_H

#include <cstddef>
#include <string_view>

#include "openssh/reporter/log_line.h"

namespace openssh {

struct log_filter {
    /// The highest debug level of a line that was not forced out: the operator's setting.
    int shown_level = 0;
    /// Whether sshd's level "verbose", between the normal one and the first debug level, is shown.
    bool shows_verbose = false;
};

enum class line_fate {
    pass,       ///< an ordinary line, logged unchanged
    keep_back,  ///< forced out and suppressed
    pass_bare,  ///< forced out, but of a severity that is shown: logged without its tag
};

/// Judges a line. Sets `line` unless it is an ordinary one.
line_fate judge_line(log_filter& filter, std::string_view written, log_line& line) noexcept;

/// Writes the line as it would be logged without LogVerbose, truncated to the buffer. Returns its length.
size_t write_bare_line(const log_line& line, char* buffer, size_t size) noexcept;

}  // namespace openssh

#endif
