/// What sshd is given: one file for each user who has a key, with the line of authorized keys in it.
///
/// The key store's records are in the configuration's database, which the running agent keeps to itself. The files are
/// their copy for those who must not depend on the agent.
#ifndef USER_KEYS_KEY_FILE_H
#define USER_KEYS_KEY_FILE_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/status.h"

/// Root's alone, made when missing.
inline constexpr char key_file_directory[] = "/var/lib/ssh_cfg_agent/user_keys";

// Users are named as key_user_is_valid wants it. All may throw std::bad_alloc, and return 0 or an errno value.

/// Puts a file in the place of the user's former one, in one step; durable when it returns. On failure the former one is
/// left.
platform_status key_file_write(std::string_view user, std::string_view line);

/// Takes the user's file away, if there is one; durable when it returns.
platform_status key_file_remove(std::string_view user);

/// Stores what the user's file holds, nothing when there is none.
platform_status key_file_read(std::string_view user, std::string& line);

/// The names of all users who have a file.
platform_status key_file_list(std::vector<std::string>& users);

#endif
