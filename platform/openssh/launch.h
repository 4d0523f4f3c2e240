/// The server's launcher, from its start until it executes sshd.
#ifndef OPENSSH_LAUNCH_H
#define OPENSSH_LAUNCH_H

#include <string>
#include <string_view>
#include <vector>

#include "common/launch_record.h"
#include "openssh/local_files.h"
#include "openssh/options.h"
#include "openssh/paths.h"
#include "openssh/report.h"
#include "openssh/server_limits.h"
#include "openssh/translate.h"

namespace openssh {

/// Exit statuses of the launcher.
enum launch_status {
    launch_ready = 0,
    launch_usage = 2,
    launch_file_unreadable = 3,  ///< the agent's file cannot be read
    launch_no_good_file = 4,     ///< the file is unusable and there is no last good one
    launch_no_state = 5,         ///< a required directory cannot be created
    launch_exec_failed = 6,      ///< sshd could not be executed
    launch_limits_left = 7,      ///< after a server's end: its limit of new connections could not be removed
    launch_not_compared = 8,     ///< the running servers could not be compared with their files
    launch_local_refused = 9,    ///< in a trial: the file is usable, but not with the present local directives
};

/// Translates server files for this machine: for its ssh, its host keys and its installed programs.
class file_translator {
  public:
    explicit file_translator(const launcher_paths& paths) : paths_(paths) {}

    /// Queries ssh's algorithms. Returns the error; empty on success.
    std::string prepare();

    /// Translates the text of a server file, with local directives. The first line of the result contains `name`, the path of
    /// the agent's file.
    translation translate_file(std::string_view text, std::string_view name,
                               const std::vector<local_file>& local_files) const;

  private:
    const launcher_paths& paths_;
    known_algorithms known_;
};

/// The file and the limits that the server runs with.
struct launch {
    std::string config;    ///< path of sshd's file
    server_limits limits;  ///< of the agent's file, also where sshd's file is the last good one
    /// The content for `keep_record`, also if the server is not started.
    launch_record record;
};

/// Translates and tests the file and keeps the result, or falls back on the last good one. Everything that the operator
/// should know has been reported. `prepared` is complete with `launch_ready`, and its record in any case.
launch_status prepare_launch(const launcher_paths& paths, const launch_options& options, const reporter& to,
                             launch& prepared);

/// Writes the record of this launch, which replaces the previous one. A failure is only reported.
void keep_record(const launcher_paths& paths, launch_record record, const reporter& to);

/// Prints what becomes of each present local directive of the server, or of those in the text on standard input instead of
/// a file's. Each line has the fields outcome ("accepted", "overruled" or "refused"), "root" if only root may set it or
/// "-", place, directive and remark, separated by tabs. An empty line and the translation follow.
launch_status judge_local(const launcher_paths& paths, const launch_options& options, const reporter& to,
                          std::string& judgement);

/// Where the last accepted local directives of a server are kept.
std::string accepted_local_path(const launcher_paths& paths, const std::string& server_file);

/// Returns the translation as text, for printing, and reports sshd's messages about it; nothing is kept. `translated` is
/// also set if sshd rejects it.
launch_status try_translation(const launcher_paths& paths, const launch_options& options, const reporter& to,
                              std::string& translated);

/// The command that the launcher becomes. sshd stays in the foreground, so that the service manager's main process is the
/// server, and logs to syslog, where the journal finds it with the unit and other readers of the log with its facility.
std::vector<std::string> server_command(const launcher_paths& paths, const std::string& config);

/// The library to run sshd with, so that sessions run under the wrapper; empty, and reported, if any part of it is not
/// installed.
std::string session_hook_of(const launcher_paths& paths, const reporter& to);

}  // namespace openssh

#endif
