/// A copy of this process that can change nothing of the machine.
///
///     this process -- keeper (a fork) -- isolated process (process 1 of a namespace of its own)
///
/// The isolated process sees every mounted file system read-only; what it may write is mounted over it
/// (linux/rehearsal/private_folders.h). It has none of this process's descriptors, sees no process that it could signal, and
/// has lost all privileges but those over files. It dies with the keeper, which dies with this process, and takes with it
/// whatever it has started; its mounts disappear with it.
#ifndef LINUX_REHEARSAL_ISOLATED_PROCESS_H
#define LINUX_REHEARSAL_ISOLATED_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

#include "platform/status.h"

/// What the isolated process does. `connection` is its end of a stream socket. `problem` is empty, or says why the process
/// is not isolated; then nothing but the connection may be used.
using isolated_work = std::function<void(int connection, const std::string& problem)>;

class isolated_process {
  public:
    /// `prepare` is called in the isolated process while it may still mount file systems, in a mount namespace of its own,
    /// and calls make_machine_read_only. It returns what failed, or an empty text.
    isolated_process(const std::function<std::string()>& prepare, const isolated_work& work);
    isolated_process(const isolated_process&) = delete;
    isolated_process& operator=(const isolated_process&) = delete;
    /// Kills the process if it still runs.
    ~isolated_process();

    /// 0, or why the process could not be started.
    platform_status status() const { return status_; }

    /// This process's end of the socket.
    int connection() const { return connection_; }

    /// Waits for the end of a process that has closed its end of the socket. Returns the signal, such as SIGSEGV, if a
    /// fault of the program ended it; 0 if it exited, was killed from outside, or does not end within `limit`.
    int wait_for_crash(std::chrono::milliseconds limit);

  private:
    platform_status status_ = PLATFORM_OK;
    int connection_ = -1;
    pid_t keeper_ = -1;
};

/// For `prepare`: whatever is mounted becomes read-only, in this process's mount namespace alone. Returns what failed, or an
/// empty text.
std::string make_machine_read_only();

#endif
