/// A private folder for the files that a fuzz target writes.
#ifndef FUZZ_SCRATCH_FOLDER_H
#define FUZZ_SCRATCH_FOLDER_H

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "core/paths.h"
#include "fake/fake_platform.h"
#include "require.h"

/// Mounts a private file system on the agent's folder, which disappears with the process. Returns true.
inline bool enter_scratch_folder() {
    require(unshare(geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) == 0);
    require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0);
    require(mount("tmpfs", "/var/opt", "tmpfs", 0, nullptr) == 0);
    std::filesystem::create_directories(paths::configuration_directory);
    fake_platform::set_recording(false);
    return true;
}

#endif
