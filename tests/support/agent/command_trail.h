/// Records the agent's shell commands, and the time it sleeps, among the calls that the fake platform records.
///
/// Covers run_shell_command ("$ systemctl daemon-reload") and sleep() ("sleep(2)"). The commands still run, against the
/// stubs; a sleep takes no time. For programs that link test_faults.
#ifndef SUPPORT_COMMAND_TRAIL_H
#define SUPPORT_COMMAND_TRAIL_H

#include <functional>
#include <string_view>

namespace command_trail {

/// Start and stop recording. Both also clear the faults of call_faults.
void begin();
void end();

/// Makes commands that begin with `prefix` fail with `error` without running them.
void fail_shell(std::string_view prefix, int error);

/// Called in every sleep, after it was recorded.
void on_sleep(std::function<void()> action);

}  // namespace command_trail

#endif
