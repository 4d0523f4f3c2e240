/// Failing system calls: runs a piece of code in a child process and lets its file operations fail, or the child die,
/// at a place of one's choosing. What the code under test links against does not matter.
///
/// For x86-64 Linux, where the machine allows tracing of one's own children.
#ifndef SUPPORT_SYSCALL_FAULTS_H
#define SUPPORT_SYSCALL_FAULTS_H

#include <cstdint>
#include <functional>
#include <string>

namespace syscall_faults {

enum class fault {
    none,
    error,        ///< the call fails with `error` and is not carried out
    short_write,  ///< a write or a read gets through half of what it was asked to; any other call is left alone
    kill,         ///< the child is killed before the call
};

/// What happens to the system calls that deal with files (open, read, write, stat, rename, close, ...), counted from 1.
struct plan {
    fault kind = fault::none;
    uint32_t call = 0;      ///< the call that is hit
    bool for_ever = false;  ///< and every one after it
    int error = 0;
};

struct outcome {
    uint32_t calls = 0;   ///< file operations that were begun
    bool hit = false;     ///< whether there was a call to be hit
    bool killed = false;  ///< the child was killed as planned
    int status = -1;      ///< else what `body` returned (0 to 255)
    std::string name;     ///< of the call that was hit first
};

/// Runs `body` in a child process that ends right after it. Ends the process when tracing is not possible.
outcome run(const plan& plan, const std::function<int()>& body);

}  // namespace syscall_faults

#endif
