/// The copy of OpenSSH's SFTP server that sessions run.
#ifndef OPENSSH_SFTP_SERVER_H
#define OPENSSH_SFTP_SERVER_H

#include <string>

#include "openssh/paths.h"

namespace openssh {

/// Makes the copy if there is none, or if the original has changed since. Users can execute it but not read it: otherwise a
/// second session of a user who may only transfer files could write a program into the first one's SFTP server. Returns an
/// empty text, or what went wrong; an earlier copy then stays.
std::string renew_sftp_server(const launcher_paths& paths);

}  // namespace openssh

#endif
