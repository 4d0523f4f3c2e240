/// The client's launcher, from its start until it executes ssh.
#ifndef OPENSSH_CLIENT_LAUNCH_H
#define OPENSSH_CLIENT_LAUNCH_H

#include <string>
#include <vector>

#include "openssh/paths.h"
#include "openssh/report.h"

namespace openssh {

/// Exit status when the launcher cannot execute ssh; ssh itself uses it for its own errors.
constexpr int client_failed = 255;

/// Where reports go: errors to the user's terminal, everything to the system log.
struct client_reporters {
    reporter terminal;
    reporter log;
};

/// Who runs the client.
struct client_user {
    unsigned id;
    std::string runtime_directory;  ///< the value of XDG_RUNTIME_DIR, empty if unset
    std::string home;               ///< from the list of users, empty if unknown
};

/// The directory of a user's translation, in a place where nobody else can make it first: for root the launchers' own;
/// for others one in their runtime directory or their home, if these belong to them alone, otherwise a new one of a random
/// name, which stays. Empty with errno set if that cannot be created.
std::string client_state_directory(const launcher_paths& paths, const client_user& user);

/// Translates the client's file and keeps the result in `state_directory`; `config` is its path. The file is kept for
/// jump hosts, whose clients read it again. Returns an empty text, or an error message for the user.
std::string prepare_client(const launcher_paths& paths, const std::string& state_directory, const client_reporters& to,
                           std::string& config);

/// In FIPS mode, whether the arguments would make ssh offer an algorithm that the mode excludes. Returns what is wrong, worded
/// for the user; empty text otherwise. `config` is the client's file.
std::string check_fips_arguments(const launcher_paths& paths, const std::string& config, int count,
                                 char* const* arguments);

/// The arguments for executing ssh under the name of the client's launcher, by which sessions are found.
std::vector<std::string> client_command(const launcher_paths& paths, const std::string& config, int count,
                                        char* const* arguments);

}  // namespace openssh

#endif
