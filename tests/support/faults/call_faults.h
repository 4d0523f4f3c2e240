/// Makes calls of the program under test to the standard library and the kernel fail, counts them, and kills the
/// program at a chosen call.
///
/// The linker redirects the calls in diverted_calls.def in all code that is linked statically, but not inside shared
/// libraries. A call has its own name and the name of its group: the compiler may turn fputs into fwrite, so a test
/// that means any of them uses "stdio_write"; likewise "stdio_read", "command" (the agent's run_shell_command),
/// "sleeping" and "allocation". Calls on standard output and standard error never fail.
///
/// The record codec is the real one on every platform and can fail, too: its error is the returned status, its object
/// the record's name.
///
/// For a real ENOSPC use scratch_root::limit_space, for a real EROFS scratch_root::set_read_only.
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

/// Makes a call fail with `error` in errno and do nothing else, `times` times from the `from_call`th matching call on.
/// With `object` only calls on that file match (the path passed or, for descriptors and streams, their file), or
/// commands that begin with it. The failure of a stream drops its buffer, and a closing call still closes.
void fail_call(std::string_view call, int error, uint32_t times = always, uint32_t from_call = 1,
               std::string_view object = "");

/// Limits write, read, send, recv or a stdio write to `bytes` bytes. For a stdio write that is a failure with ENOSPC.
void cut_call(std::string_view call, size_t bytes, uint32_t times = always, uint32_t from_call = 1,
              std::string_view object = "");

/// Makes a command return `result`, with `error` in errno, without running it.
void answer_command(std::string_view command, int result, int error, uint32_t times = always, uint32_t from_call = 1);

/// Makes sleeping calls return immediately, and adds up the time they would have slept.
void skip_sleeping();
uint64_t slept_milliseconds();

/// Limits the duration of all commands, so that a test with a hanging command does not wait for the real limit.
void limit_commands(uint32_t milliseconds);

/// Removes all faults and limits and resets the counters. Observers remain.
void clear();

/// How often a call, or the calls of a group, were made since the start or the last clear().
uint32_t count_calls(std::string_view call);

/// Calls that may change the disk, since the start or the last clear().
uint32_t count_changes();

/// Starts to record every diverted call except allocations, as "rename(/old)".
void start_recording();
std::vector<std::string> recorded_calls();

/// Called with every command of the agent before it is run.
void observe_commands(std::function<void(const std::string&)> observer);

/// Called instead of every sleep(), with its seconds.
void observe_sleeps(std::function<void(unsigned int)> observer);

enum class moment { before, after };

/// Runs `work` in a child process that is killed just before or after its `nth` call that may change the disk. Returns
/// whether that call was reached; if not, the work was completed.
bool run_killed(uint32_t nth, moment when, const std::function<void()>& work);

/// Runs `prepare`, `work` and `check` for each call of `work` that may change the disk, and kills `work` before that
/// call and in the next round after it. Returns the number of calls.
uint32_t for_each_kill_point(const std::function<void()>& prepare, const std::function<void()>& work,
                             const std::function<void()>& check);

}  // namespace call_faults

#endif
