/// Reads the pages in which sshd and ssh keep the facts of their sessions. Their content is not trusted: texts end
/// within their fields and are printable, and numbers are in their range.
#ifndef OPENSSH_SESSIONS_PAGE_READER_H
#define OPENSSH_SESSIONS_PAGE_READER_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "openssh/reporter/session_page.h"

namespace openssh {

/// Reads the page at `offset`. Returns false, with `facts` unchanged, if there is none, if it has another layout, or if
/// it is being changed each time.
bool read_page(int file, size_t offset, session_facts& facts);

/// Whether the file is one that only this user, which is root, can have made.
bool is_server_file(int file);

/// Whether the file is memory that nobody can shorten.
bool is_client_file(int file);

/// Takes over what the session's own process may tell: its channels, its rekeys, and the algorithms of a rekey. Who is
/// logged in and how, and the algorithms of the login, remain those that the monitor knows.
void add_reported(session_facts& facts, const session_facts& reported);

/// A process as named by a server's file.
struct session_process {
    pid_t pid = 0;
    uint64_t start_time = 0;
};

/// The process in the file name "PID.START"; false for any other name.
bool parse_session_name(std::string_view name, session_process& process);
std::string session_name(const session_process& process);

}  // namespace openssh

#endif
