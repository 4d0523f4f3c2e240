/// Reads the pages in which sshd and ssh keep the facts about their sessions. The pages are not trusted: the functions
/// here make sure that texts are printable and end within their fields, and that numbers are in range.
#ifndef OPENSSH_SESSIONS_PAGE_READER_H
#define OPENSSH_SESSIONS_PAGE_READER_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "openssh/reporter/session_page.h"

namespace openssh {

/// Reads the page at `offset`, of the present version or of an earlier one, which leaves later facts empty. Returns
/// false, with `facts` unchanged, if there is none, if it has another layout, or if it was being changed at every attempt.
bool read_page(int file, size_t offset, session_facts& facts);

/// Whether only this user, which is root, can have created the file.
bool is_server_file(int file);

/// Whether the file is a memory file that nobody can shrink.
bool is_client_file(int file);

/// Copies the facts that the session's own process may report: its channels, its rekeys, and the algorithms of a rekey.
/// Who is logged in and how, and the algorithms of the login, remain as the monitor recorded them.
void add_reported(session_facts& facts, const session_facts& reported);

/// The process that a server's file belongs to.
struct session_process {
    pid_t pid = 0;
    uint64_t start_time = 0;
};

/// Parses the file name "PID.START". Returns false for any other name.
bool parse_session_name(std::string_view name, session_process& process);
std::string session_name(const session_process& process);

}  // namespace openssh

#endif
