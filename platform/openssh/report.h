/// What the launcher tells the operator, on standard error or, for a service, in the journal.
#ifndef OPENSSH_REPORT_H
#define OPENSSH_REPORT_H

#include <string>
#include <string_view>

#include "openssh/translate.h"

namespace openssh {

struct reporter {
    std::string server_file = {};  ///< named in every line
    bool to_journal = false;       ///< lines begin with their severity as "<N>", which the journal takes off
    int fd = 2;
};

/// Whether the descriptor is the journal's stream, by what the service manager says of it in `journal_stream`
/// ("device:inode", the value of JOURNAL_STREAM, or null).
bool is_journal_stream(int fd, const char* journal_stream);

/// The line that `report` writes, with its line feed.
std::string format_report(const reporter& to, severity level, std::string_view text);

void report(const reporter& to, severity level, std::string_view text);

/// Reports each line of a program's words, after `prefix`.
void report_words(const reporter& to, severity level, std::string_view prefix, std::string_view words);

}  // namespace openssh

#endif
