#include "syscall_faults.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace syscall_faults {
namespace {

struct file_call {
    long number;
    const char* name;
    bool transfers;  ///< its third argument is a number of bytes
    bool changes;    ///< it changes what is on the disk
};

constexpr file_call file_calls[] = {
    {SYS_open, "open", false, false},
    {SYS_openat, "openat", false, false},
    {SYS_creat, "creat", false, true},
    {SYS_read, "read", true, false},
    {SYS_write, "write", true, true},
    {SYS_pread64, "pread64", true, false},
    {SYS_pwrite64, "pwrite64", true, true},
    {SYS_writev, "writev", false, true},
    {SYS_lseek, "lseek", false, false},
    {SYS_stat, "stat", false, false},
    {SYS_fstat, "fstat", false, false},
    {SYS_lstat, "lstat", false, false},
    {SYS_newfstatat, "newfstatat", false, false},
    {SYS_statx, "statx", false, false},
    {SYS_chmod, "chmod", false, true},
    {SYS_fchmod, "fchmod", false, true},
    {SYS_fchmodat, "fchmodat", false, true},
    {SYS_ftruncate, "ftruncate", false, true},
    {SYS_fsync, "fsync", false, false},
    {SYS_fdatasync, "fdatasync", false, false},
    {SYS_rename, "rename", false, true},
    {SYS_renameat, "renameat", false, true},
    {SYS_renameat2, "renameat2", false, true},
    {SYS_unlink, "unlink", false, true},
    {SYS_unlinkat, "unlinkat", false, true},
    {SYS_mkdir, "mkdir", false, true},
    {SYS_mkdirat, "mkdirat", false, true},
    {SYS_close, "close", false, false},
    {SYS_access, "access", false, false},
    {SYS_fcntl, "fcntl", false, false},
};

/// The argument that marks the call of getpgid by which a child ends its faults.
constexpr unsigned long long end_of_faults = 0x5ca1ab1e;

[[noreturn]] void give_up(const char* what) {
    fprintf(stderr, "system-call faults: %s: %s\n", what, strerrordesc_np(errno));
    abort();
}

const file_call* find_call(long number) {
    for (const file_call& call : file_calls) {
        if (call.number == number) {
            return &call;
        }
    }
    return nullptr;
}

/// Whether a call that begins with these registers changes what is on the disk. Opening does if it may create or empty a
/// file.
bool changes_disk(const file_call& call, const user_regs_struct& registers) {
    const bool opens = call.number == SYS_open || call.number == SYS_openat;
    const auto flags = call.number == SYS_open ? registers.rsi : registers.rdx;
    return call.changes || (opens && (flags & (O_CREAT | O_TRUNC)) != 0);
}

/// A traced child that is stopped at the entry of a system call.
class tracer {
  public:
    tracer(const plan& plan, pid_t child) : plan_(plan), child_(child) {}

    outcome run() {
        wait_for_stop();
        if (ptrace(PTRACE_SETOPTIONS, child_, 0, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0) {
            give_up("cannot trace");
        }
        while (next_stop()) {
            at_entry();
            if (!alive_) {
                break;
            }
        }
        return outcome_;
    }

  private:
    void wait_for_stop() {
        int status = 0;
        if (waitpid(child_, &status, 0) != child_ || !WIFSTOPPED(status)) {
            give_up("the child did not stop");
        }
    }

    /// Continues the child until its next stop at a system call. Returns false if it has ended.
    bool next_stop() {
        int signal = 0;
        for (;;) {
            ptrace(PTRACE_SYSCALL, child_, 0, signal);
            int status = 0;
            if (waitpid(child_, &status, 0) != child_) {
                give_up("cannot wait");
            }
            if (!WIFSTOPPED(status)) {
                ended(status);
                return false;
            }
            if (WSTOPSIG(status) == (SIGTRAP | 0x80)) {
                return true;
            }
            signal = WSTOPSIG(status);
        }
    }

    void ended(int status) {
        alive_ = false;
        if (WIFEXITED(status)) {
            outcome_.status = WEXITSTATUS(status);
        } else if (!outcome_.killed) {
            fprintf(stderr, "system-call faults: the child died of signal %d\n", WTERMSIG(status));
            outcome_.status = 255;
        }
    }

    bool is_hit() const {
        return plan_.kind != fault::none &&
               (outcome_.calls == plan_.call || (plan_.for_ever && outcome_.calls > plan_.call));
    }

    void at_entry() {
        user_regs_struct registers = {};
        ptrace(PTRACE_GETREGS, child_, 0, &registers);
        const file_call* call = find_call(static_cast<long>(registers.orig_rax));
        ended_ = ended_ || (registers.orig_rax == SYS_getpgid && registers.rdi == end_of_faults);
        bool fails = false;
        if (call != nullptr && !ended_) {
            outcome_.calls++;
            outcome_.changes.push_back(changes_disk(*call, registers));
            if (is_hit()) {
                fails = hit(*call, registers);
            }
        }
        if (alive_ && next_stop() && fails) {
            ptrace(PTRACE_GETREGS, child_, 0, &registers);
            registers.rax = static_cast<unsigned long long>(-static_cast<long long>(plan_.error));
            ptrace(PTRACE_SETREGS, child_, 0, &registers);
        }
    }

    /// Returns a text of the child, or the beginning of a long one.
    std::string text_at(unsigned long long address) const {
        char text[256] = "";
        const iovec here = {text, sizeof text - 1};
        const iovec there = {reinterpret_cast<void*>(address), sizeof text - 1};
        const ssize_t size = process_vm_readv(child_, &here, 1, &there, 1, 0);
        return {text, strnlen(text, size > 0 ? static_cast<size_t>(size) : 0)};
    }

    /// Returns whether the call's result must be replaced at its exit.
    bool hit(const file_call& call, user_regs_struct& registers) {
        if (!outcome_.hit) {
            outcome_.hit = true;
            outcome_.name = call.name;
            if (call.number == SYS_openat || call.number == SYS_newfstatat || call.number == SYS_unlinkat) {
                outcome_.path = text_at(registers.rsi);
            } else if (call.number == SYS_rename || call.number == SYS_unlink) {
                outcome_.path = text_at(registers.rdi);
            }
        }
        if (plan_.kind == fault::kill) {
            kill_child();
            return false;
        }
        if (plan_.kind == fault::short_write) {
            if (call.transfers && registers.rdx > 1) {
                registers.rdx /= 2;
                ptrace(PTRACE_SETREGS, child_, 0, &registers);
            }
            return false;
        }
        // Linux closes a descriptor even if it reports an error.
        if (call.number != SYS_close) {
            registers.orig_rax = static_cast<unsigned long long>(-1);
            ptrace(PTRACE_SETREGS, child_, 0, &registers);
        }
        return true;
    }

    void kill_child() {
        outcome_.killed = true;
        kill(child_, SIGKILL);
        int status = 0;
        while (waitpid(child_, &status, 0) == child_ && WIFSTOPPED(status)) {
        }
        alive_ = false;
    }

    const plan& plan_;
    pid_t child_;
    bool alive_ = true;
    bool ended_ = false;
    outcome outcome_;
};

}  // namespace

std::vector<uint32_t> kill_points(const outcome& undisturbed) {
    std::vector<uint32_t> points;
    bool has_changed = false;
    for (uint32_t i = 0; i < undisturbed.changes.size(); i++) {
        if (undisturbed.changes[i] || has_changed) {
            points.push_back(i + 1);
        }
        has_changed = undisturbed.changes[i];
    }
    return points;
}

bool every_call() {
    return getenv("EVERY_CALL") != nullptr;
}

std::vector<uint32_t> chosen_calls(const std::vector<uint32_t>& calls, size_t most) {
    const size_t step = every_call() ? 1 : (calls.size() + most - 1) / most;
    std::vector<uint32_t> chosen;
    for (size_t i = 0; i < calls.size(); i += step) {
        chosen.push_back(calls[i]);
    }
    return chosen;
}

void end_faults() {
    syscall(SYS_getpgid, end_of_faults);
}

int run_undisturbed(const std::function<int()>& body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        give_up("cannot fork");
    }
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

outcome run(const plan& plan, const std::function<int()>& body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        give_up("cannot fork");
    }
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, 0, 0) != 0) {
            give_up("cannot be traced");
        }
        raise(SIGSTOP);
        _exit(body());
    }
    return tracer(plan, child).run();
}

}  // namespace syscall_faults
