/// A temporary root file system for a test process, so that tests can write to the agent's absolute paths.
///
/// The process runs in private mount, network, process, IPC and host-name namespaces over an overlay of the machine's
/// root: its changes disappear when it ends, nothing outside changes, and no outside process can be reached. Requires
/// root, or a kernel that allows ordinary users to create user namespaces.
#ifndef SUPPORT_SCRATCH_ROOT_H
#define SUPPORT_SCRATCH_ROOT_H

#include <cstdint>
#include <string>
#include <vector>

namespace scratch_root {

/// The machine's own directories. Everything written elsewhere stays in the scratch root.
struct settings {
    std::vector<std::string> readable;  ///< read-only, mainly the source tree
    std::vector<std::string> writable;  ///< really written, mainly the build folder
};

/// Continues in a new process inside a new scratch root and returns there; the calling process ends with the new one's
/// exit status or signal. Must be called before the process has a second thread. A process that is already in a scratch
/// root stays in it. Ends the process with status 125 and a message if the machine does not allow it.
void enter(const settings& settings);

/// Whether this process is in a scratch root.
bool entered();

/// Mounts a file system of `bytes` bytes on `directory`, which is created if it is missing: writing more is a real
/// ENOSPC. The directory's content is copied if it fits. Ends the process on failure.
void limit_space(const std::string& directory, uint64_t bytes);

/// Makes everything in `directory` read-only (EROFS), or writable again.
void set_read_only(const std::string& directory, bool read_only);

/// Creates or removes a file under /run/netns, which makes the network namespace `name` ("vrf-red") appear to exist.
/// Removing a missing file is no error.
void add_namespace_file(const std::string& name);
void remove_namespace_file(const std::string& name);

}  // namespace scratch_root

#endif
