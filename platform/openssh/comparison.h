/// Compares the settings with which the running servers were started with those with which they would be started now.
///
/// The two differ after an upgrade of OpenSSH or of the launcher, or once a host key or a program is installed that was
/// missing when the server was started.
#ifndef OPENSSH_COMPARISON_H
#define OPENSSH_COMPARISON_H

#include <string>

#include "openssh/paths.h"

namespace openssh {

/// For each running server, translates again the file that it was started with (or the server file, if no copy was kept).
/// Stores one line for each server whose settings would be different: the name of its translated file, a space, and the
/// settings as `sshd -T` prints their names, separated by commas. If the texts agree, sshd is
/// not run, and the server's record is made to say what has become of its local directives since it was started. Servers that run
/// with their last good file are skipped. Returns why nothing can be compared; empty on success.
std::string compare_running_servers(const launcher_paths& paths, std::string& lines);

}  // namespace openssh

#endif
