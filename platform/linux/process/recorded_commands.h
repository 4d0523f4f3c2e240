/// The shell commands of a copy of the agent that must not act on the machine. They are recorded instead of run.
#ifndef LINUX_PROCESS_RECORDED_COMMANDS_H
#define LINUX_PROCESS_RECORDED_COMMANDS_H

#include <functional>
#include <map>
#include <set>
#include <string>

struct recorded_commands {
    /// Whether the server of a VRF runs on the machine.
    std::function<bool(const std::string& vrf_name)> is_running;

    /// The last command for each server, by VRF: true to start or restart it, false to stop it.
    std::map<std::string, bool> servers;
    std::set<std::string> rules;  ///< VRFs whose access-list rules would be loaded
    std::string unknown;          ///< the first command that was neither recorded nor known to change nothing
};

/// From now on this process's commands are recorded in `commands` (platform/shell_commands.h), which must outlive the
/// process. Commands that only read are left to the shell, unknown ones fail.
void record_commands(recorded_commands& commands);

/// Whether the commands of this process are recorded, so that it must leave the machine alone.
bool commands_are_recorded();

#endif
