/// Stand-ins for the commands that the agent runs: they log how they were called and behave as told.
///
/// A command is named by its base name and as many of its arguments as matter ("systemctl restart" is every restart).
/// Rules are looked at in the order in which they were given; where several hold, the later one wins, part by part.
#ifndef SUPPORT_STUB_COMMANDS_H
#define SUPPORT_STUB_COMMANDS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace stub_commands {

inline constexpr uint32_t always = UINT32_MAX;

/// Puts the stand-ins for systemctl, ip and nft into the scratch root.
void install();

/// Puts a stand-in for one more command at its places on the PATH ("ps"), or at one whole path.
void install_command(const std::string& command);

/// Takes a command away, as on a machine where it is not installed.
void remove_command(const std::string& command);

/// The command lines so far, each with the command's base name first ("systemctl daemon-reload").
std::vector<std::string> log();

/// The command lines that begin with `command`.
std::vector<std::string> log_of(std::string_view command);

void clear_log();

/// Ends the command with an exit status (negative: by that signal) from its `from_call`th call on, `times` times.
void fail(std::string_view command, int status, uint32_t times = always, uint32_t from_call = 1);

/// Lets the command print `output`.
void set_output(std::string_view command, std::string_view output, uint32_t times = always, uint32_t from_call = 1);

/// Runs a shell command within the stand-in, which finds its own command line in STUB_COMMAND_LINE.
void set_hook(std::string_view command, std::string_view shell_command, uint32_t times = always,
              uint32_t from_call = 1);

/// Lets the command take its time.
void set_delay(std::string_view command, uint32_t milliseconds, uint32_t times = always, uint32_t from_call = 1);

/// Lets a server's unit ("sshd_service_red") fail to start, alone or with others, until it is allowed to again.
void fail_unit(const std::string& unit);
void allow_unit(const std::string& unit);

/// Forgets all rules.
void clear_rules();

}  // namespace stub_commands

#endif
