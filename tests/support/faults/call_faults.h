/// Failing, counting and interrupting the calls that the program under test makes of the standard library and the kernel.
///
/// The calls of diverted_calls.def are diverted by the linker wherever a program is linked statically; what libraries do
/// within themselves is not. A call goes by its own name and by its group: the compiler may turn fputs into fwrite, so a
/// test that means any of them says "stdio_write"; likewise "stdio_read", "command" (the agent's run_shell_command), "sleeping"
/// and "allocation". What is written to standard output and standard error is left alone.
///
/// The record codec, which is the real one on every platform, can be let fail, too: its error is the status returned, its
/// object the record's name.
///
/// A true ENOSPC is had with scratch_root::limit_space, a true EROFS with scratch_root::set_read_only.
#ifndef SUPPORT_CALL_FAULTS_H
#define SUPPORT_CALL_FAULTS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace call_faults {

inline constexpr uint32_t once = 1;
inline constexpr uint32_t always = UINT32_MAX;

/// Lets a call fail with `error` in errno and do nothing: from its `from_call`th matching call on, `times` times. With
/// `object` only calls on that file are meant (the path that was given or, for descriptors and streams, the file behind
/// it), or commands that begin with it. A stream's failure drops what was buffered, and a closing call still closes.
void fail_call(std::string_view call, int error, uint32_t times = always, uint32_t from_call = 1,
               std::string_view object = "");

/// Lets write, read, send, recv or a stdio write do only `bytes` of what it was asked for. For a stdio write that is a
/// failure, whose error is ENOSPC.
void cut_call(std::string_view call, size_t bytes, uint32_t times = always, uint32_t from_call = 1,
              std::string_view object = "");

/// Lets a command return `result`, with `error` in errno, without being run.
void answer_command(std::string_view command, int result, int error, uint32_t times = always, uint32_t from_call = 1);

/// Lets the sleeping calls return at once, and counts what they were to sleep.
void skip_sleeping();
uint64_t slept_milliseconds();

/// Lets no command run longer than this, so that a test of one that hangs does not wait for its real limit.
void limit_commands(uint32_t milliseconds);

/// Nothing fails any more, commands have their own limits, sleeping sleeps, and counting starts at zero.
void clear();

/// How often a call, or those of a group, were made since the start or the last clear().
uint32_t count_calls(std::string_view call);

/// Calls that may change the disk, since the start or the last clear().
uint32_t count_changes();

/// From now on every diverted call but allocations is kept, as "rename(/old)".
void start_recording();
std::vector<std::string> recorded_calls();

/// Called with every command of the agent before it is run.
void observe_commands(std::function<void(const std::string&)> observer);

/// Called instead of every sleep(), with its seconds.
void observe_sleeps(std::function<void(unsigned int)> observer);

enum class moment { before, after };

/// Runs `work` in a child process that is killed just before or after its `nth` call that may change the disk. Returns
/// whether that call was reached; otherwise the work was done whole.
bool run_killed(uint32_t nth, moment when, const std::function<void()>& work);

/// Kills `work` at each of its calls that may change the disk, before and after it: `prepare`, the killed work, `check`,
/// for one after the other. Returns how many there were.
uint32_t for_each_kill_point(const std::function<void()>& prepare, const std::function<void()>& work,
                             const std::function<void()>& check);

}  // namespace call_faults

#endif
