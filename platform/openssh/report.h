/// The launcher's messages for the operator: on standard error, or for a service in the journal.
#ifndef OPENSSH_REPORT_H
#define OPENSSH_REPORT_H

#include <string>
#include <string_view>

#include "openssh/translate.h"

namespace openssh {

enum class report_way {
    text,         ///< lines on standard error
    marked_text,  ///< the same, preceded by the severity as "<N>", which the journal removes
    system_log,  ///< the system log, where the lines appear next to the server's own, with the same name and process ID
};

struct reporter {
    std::string server_file = {};  ///< named in every line
    report_way way = report_way::text;
    int fd = 2;  ///< standard error
    const char* program = "sshd";
    /// The service whose main process this is. The journal cannot determine it after the process has ended.
    std::string service = {};
    /// The name in the system log. A server's is followed by its VRF, as in sshd's own lines.
    std::string log_name = "norvosshd";
};

/// The way for a process whose standard error is `fd`. `journal_stream` identifies the journal's stream for the service
/// manager ("device:inode", the value of JOURNAL_STREAM), or is null; a process that writes there is a service.
report_way choose_report_way(int fd, const char* journal_stream, bool has_system_log);

/// A line that `report` writes to standard error, with its line feed.
std::string format_report(const reporter& to, severity level, std::string_view text);

void report(const reporter& to, severity level, std::string_view text);

/// Reports each line of a program's output, after `prefix`.
void report_words(const reporter& to, severity level, std::string_view prefix, std::string_view words);

}  // namespace openssh

#endif
