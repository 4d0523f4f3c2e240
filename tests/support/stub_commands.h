/// Stubs of the commands that the agent runs: they log their command lines and follow the rules set here.
///
/// A command is named by its base name and the arguments that matter ("systemctl restart" is every restart). If several
/// rules match, a later one overrides the parts of an earlier one that it sets.
#ifndef SUPPORT_STUB_COMMANDS_H
#define SUPPORT_STUB_COMMANDS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace stub_commands {

inline constexpr uint32_t always = UINT32_MAX;

/// Installs the stubs of systemctl, ip and nft in the scratch root.
void install();

/// Installs a stub of another command in its folders on the PATH ("ps"), or at an absolute path.
void install_command(const std::string& command);

/// Removes a command, as on a machine where it is not installed.
void remove_command(const std::string& command);

/// The command lines so far, each with the command's base name first ("systemctl daemon-reload").
std::vector<std::string> log();

/// The command lines that begin with `command`.
std::vector<std::string> log_of(std::string_view command);

void clear_log();

/// Makes the command end with an exit status (negative: a signal), `times` times from its `from_call`th call on.
void fail(std::string_view command, int status, uint32_t times = always, uint32_t from_call = 1);

/// Makes the command print `output`.
void set_output(std::string_view command, std::string_view output, uint32_t times = always, uint32_t from_call = 1);

/// Runs a shell command inside the stub, with the stub's command line in STUB_COMMAND_LINE.
void set_hook(std::string_view command, std::string_view shell_command, uint32_t times = always,
              uint32_t from_call = 1);

/// Makes the command wait before it ends.
void set_delay(std::string_view command, uint32_t milliseconds, uint32_t times = always, uint32_t from_call = 1);

/// Makes a server's unit ("sshd_service_red") fail to start, alone or with others, until it is allowed again.
void fail_unit(const std::string& unit);
void allow_unit(const std::string& unit);

/// Removes all rules.
void clear_rules();

}  // namespace stub_commands

#endif
