/// How sshd and ssh report their sessions: a preloaded library passes lines from a few places in their logs to the
/// responder.
#ifndef OPENSSH_PRELOAD_H
#define OPENSSH_PRELOAD_H

#include <string>

#include "openssh/paths.h"

namespace openssh {

/// The library's path; empty if it is not installed, or is writable by anyone but root or this user.
std::string session_reporter_of(const launcher_paths& paths);

/// Preloads a library into the program that this process becomes, after those already named. Does nothing for an empty
/// path.
void load_into_sshd(const std::string& library);

/// The same for ssh, where the library removes itself from the environment again, so that programs started by ssh do not
/// inherit it. `log_file` is where ssh writes its log, empty for standard error.
void load_into_ssh(const std::string& library, const std::string& log_file);

/// Returns the VRF of a server file, which is named after it; an empty text for another file.
std::string vrf_of(const std::string& server_file);

/// Sets the variable that names the server's VRF for the library, in the environment of the sshd that this process becomes.
void name_vrf(const std::string& server_file);

/// The log file named in ssh's arguments (the first is the program's name); empty if they name none.
std::string log_file_of(int count, char* const* arguments);

}  // namespace openssh

#endif
