/// How sshd and ssh are made to tell of their sessions: a library that is loaded into them, which passes the lines of a few
/// places in their logs on to the responder.
#ifndef OPENSSH_PRELOAD_H
#define OPENSSH_PRELOAD_H

#include <string>

#include "openssh/paths.h"

namespace openssh {

/// The library's path; empty when it is not installed, or not in the hands of root or this user alone.
std::string session_reporter_of(const launcher_paths& paths);

/// Has a library loaded into the program that this process becomes, behind those that are named already. Nothing for an
/// empty path.
void load_into_sshd(const std::string& library);

/// The same for ssh, where the library takes its name out of the environment again: what ssh starts for its user is not to
/// see it. `log_file` is where ssh writes its log, empty for standard error.
void load_into_ssh(const std::string& library, const std::string& log_file);

/// The file that ssh's arguments (the program's name being the first) name for its log; empty when they name none.
std::string log_file_of(int count, char* const* arguments);

}  // namespace openssh

#endif
