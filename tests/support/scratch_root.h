/// A root of its own for a test process, so that the agent's absolute paths are scratch.
///
/// The process runs in private mount, network, process, IPC and host-name namespaces over an overlay of the machine's
/// root: what it changes is gone when it ends, nothing outside is changed, and no process outside can be reached.
/// Needs root, or a kernel that gives an ordinary user a user namespace.
#ifndef SUPPORT_SCRATCH_ROOT_H
#define SUPPORT_SCRATCH_ROOT_H

#include <cstdint>
#include <string>
#include <vector>

namespace scratch_root {

/// What of the machine shows through at its own path. Everything else that is written stays in the scratch root.
struct settings {
    std::vector<std::string> readable;  ///< directories to read from, the source tree above all
    std::vector<std::string> writable;  ///< directories that are really written, the build folder above all
};

/// Continues in a new process inside a new scratch root and returns there; the calling process ends with the new one's
/// exit status or signal. Has to be called before the process has a second thread. A process that already is in a
/// scratch root stays in it. Ends the process with status 125 and a message when the machine does not allow it.
void enter(const settings& settings);

/// Whether this process is in a scratch root.
bool entered();

/// Covers `directory`, which is made when missing, with an empty file system of `bytes` bytes: writing more is a true
/// ENOSPC. What the directory held is kept when it fits. Ends the process when it cannot be done.
void limit_space(const std::string& directory, uint64_t bytes);

/// Makes everything in `directory` read-only (EROFS), or lets it be as it was before.
void set_read_only(const std::string& directory, bool read_only);

/// Lets the network namespace `name` ("vrf-red") look as if it existed: a file under /run/netns. The second takes it
/// away; one that is not there is no error.
void add_namespace_file(const std::string& name);
void remove_namespace_file(const std::string& name);

}  // namespace scratch_root

#endif
