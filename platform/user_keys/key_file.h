/// The files that sshd reads: one for each user with keys, containing authorized_keys lines.
///
/// The key store's records are in the configuration database, which the running agent has locked. The files are copies
/// for programs that must work without the agent.
#ifndef USER_KEYS_KEY_FILE_H
#define USER_KEYS_KEY_FILE_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/status.h"

/// Accessible only to root; created if missing.
inline constexpr char key_file_directory[] = "/var/lib/ssh_cfg_agent/user_keys";

// User names must satisfy key_user_is_valid(). All functions may throw std::bad_alloc, and return 0 or an errno value.

/// Replaces the user's file atomically and durably. On failure the previous file is unchanged.
platform_status key_file_write(std::string_view user, std::string_view lines);

/// Removes the user's file, if there is one, durably.
platform_status key_file_remove(std::string_view user);

/// Stores the content of the user's file; an empty text if there is none.
platform_status key_file_read(std::string_view user, std::string& lines);

/// Stores the names of all users who have a file.
platform_status key_file_list(std::vector<std::string>& users);

#endif
