/// Runs code in a child process and makes its file operations fail, or kills it, at a chosen system call, whichever
/// library makes the call.
///
/// For x86-64 Linux machines that allow a process to trace its children.
#ifndef SUPPORT_SYSCALL_FAULTS_H
#define SUPPORT_SYSCALL_FAULTS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace syscall_faults {

enum class fault {
    none,
    error,        ///< the call fails with `error` and, unless it is close, is not executed
    short_write,  ///< a read or write is limited to half its size; other calls are left alone
    kill,         ///< the child is killed before the call
};

/// A fault in the system calls that concern files (open, read, write, stat, rename, close, ...), counted from 1.
struct plan {
    fault kind = fault::none;
    uint32_t call = 0;      ///< the affected call
    bool for_ever = false;  ///< affects all later calls, too
    int error = 0;
};

struct outcome {
    uint32_t calls = 0;         ///< file operations begun
    bool hit = false;           ///< whether the call was reached
    bool killed = false;        ///< the child was killed as planned
    int status = -1;            ///< otherwise the result of `body` (0 to 255)
    std::string name;           ///< of the first affected call
    std::string path;           ///< the path in that call, if it has one
    std::vector<bool> changes;  ///< for each file operation begun: whether it changes what is on the disk
};

/// The calls, counted from 1, before which a kill may leave another state than a kill before the preceding call: those that
/// change something, and those directly after them.
std::vector<uint32_t> kill_points(const outcome& undisturbed);

/// Returns at most `most` of the calls, evenly spread, or all of them if the environment variable EVERY_CALL is set.
std::vector<uint32_t> chosen_calls(const std::vector<uint32_t>& calls, size_t most);

/// Whether every call is to be tried, with every error.
bool every_call();

/// Ends the faults in the calling child process: its further calls are carried out and are not counted.
void end_faults();

/// Runs `body` in a child process that exits afterwards. Ends the process if tracing is not possible.
outcome run(const plan& plan, const std::function<int()>& body);

/// Runs `body` in a child process without a fault and without counting its calls, which is several times faster. Returns
/// its result (0 to 255), or -1 if the child was killed.
int run_undisturbed(const std::function<int()>& body);

}  // namespace syscall_faults

#endif
