/// Texts that sshd has accepted, so that it is not asked about the same text again at every start of a server.
///
/// A record is the whole text without its comments, together with what identifies sshd's program and the host keys that the
/// text names. It is compared byte by byte. The records are in the launcher's state directory, to which only root has
/// access, and are shared by all servers, whose texts mostly agree.
#ifndef OPENSSH_ACCEPTED_FILES_H
#define OPENSSH_ACCEPTED_FILES_H

#include <string>
#include <string_view>

namespace openssh {

/// The record of a text; empty if there can be none, because sshd's program or a host key cannot be examined.
std::string accepted_record(const std::string& sshd, std::string_view text);

/// Whether the state directory has this record. An empty record is never found.
bool is_accepted(const std::string& state_directory, const std::string& record);

/// Keeps the record, in the place of another one. An empty record is not kept, and a failure costs only time.
void keep_accepted(const std::string& state_directory, const std::string& record);

}  // namespace openssh

#endif
