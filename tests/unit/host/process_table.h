/// A process table that tests fill, in place of the kernel's.
#ifndef UNIT_HOST_PROCESS_TABLE_H
#define UNIT_HOST_PROCESS_TABLE_H

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>
#include <string>

#include "files.h"

namespace process_table {

inline constexpr char server[] = "/usr/sbin/sshd";
inline constexpr int listener = 90001;         ///< sshd's main process
inline constexpr int session_process = 90002;  ///< sshd's process of one session
inline constexpr unsigned ordinary_user = 1000;

inline void add(int pid, int parent, unsigned user, const std::string& program) {
    const std::string directory = "/proc/" + std::to_string(pid) + "/";
    const std::string parent_text = std::to_string(parent);
    const std::string user_text = std::to_string(user);
    std::filesystem::create_directories(directory);
    write_file(directory + "stat", std::to_string(pid) + " (a) S 1 (b) S " + parent_text + " 1 1 0\n");
    write_file(directory + "status", "Name:\tx\nUid:\t" + user_text + "\t0\t0\t0\n");
    std::filesystem::remove(directory + "exe");
    std::filesystem::create_symlink(program, directory + "exe");
}

/// A session's wrapper.
inline void add_session(int pid) {
    add(pid, session_process, ordinary_user, "/bin/dash");
}

/// Replaces /proc during its lifetime: a server with one session process, which has as many wrappers as are added.
class replacement {
  public:
    replacement() { set_up(); }
    replacement(const replacement&) = delete;
    replacement& operator=(const replacement&) = delete;
    /// The leak check at the end of a test program needs the kernel's table.
    ~replacement() { EXPECT_EQ(umount2("/proc", MNT_DETACH), 0); }

  private:
    static void set_up() {
        ASSERT_EQ(mount("none", "/proc", "tmpfs", 0, nullptr), 0);
        add(listener, 1, 0, server);
        add(session_process, listener, ordinary_user, server);
    }
};

}  // namespace process_table

#endif
