#include "scratch_root.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "files.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

bool can_create(const std::string& path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) {
        close(fd);
        unlink(path.c_str());
    }
    return fd >= 0;
}

TEST(scratch_root, is_entered) {
    EXPECT_TRUE(scratch_root::entered());
}

// A test must neither see the machine's files nor leave any for the next test.
TEST(scratch_root, has_its_own_empty_directories) {
    for (const char* directory : {"/var/opt", "/etc/systemd/system", "/etc/pam.d", "/var/lib/ssh_cfg_agent", "/tmp"}) {
        EXPECT_THAT(directory_names(directory), testing::Not(Contains("left_by_a_test"))) << directory;
        write_file(std::string(directory) + "/left_by_a_test", "");
        EXPECT_TRUE(path_exists(std::string(directory) + "/left_by_a_test"));
    }
    EXPECT_THAT(directory_names("/etc/systemd/system"), ElementsAre("left_by_a_test"));
    EXPECT_THAT(directory_names("/etc/pam.d"), ElementsAre("left_by_a_test"));
}

TEST(scratch_root, every_directory_of_the_agent_is_writable) {
    for (const char* directory : {"/var/opt", "/etc", "/etc/systemd/system", "/etc/pam.d", "/usr/bin", "/usr/sbin",
                                  "/run", "/var/run/netns", "/dev/shmem", "/pkg/bin", "/tmp", "/var", "/dev/shm"}) {
        EXPECT_TRUE(can_create(std::string(directory) + "/written_by_a_test")) << directory;
    }
    EXPECT_FALSE(path_exists("/etc/motd"));
    write_file("/etc/motd", "hello\n");
    EXPECT_EQ(read_file("/etc/motd"), "hello\n");
    EXPECT_EQ(mkdir("/var/empty", 0755), 0);
}

TEST(scratch_root, has_devices) {
    EXPECT_EQ(open("/dev/full", O_WRONLY | O_CLOEXEC) < 0, false);
    std::ofstream("/dev/null") << "missing";
    std::ifstream random("/dev/urandom", std::ios::binary);
    char byte = 0;
    EXPECT_TRUE(random.read(&byte, 1).good());
}

TEST(scratch_root, shows_only_its_own_processes) {
    EXPECT_EQ(system("kill -0 1 2>/dev/null && test \"$(ls -d /proc/[0-9]* | wc -l)\" -lt 8"), 0);
    EXPECT_LT(getpid(), 100);
}

TEST(scratch_root, has_only_the_loopback_interface) {
    struct ifaddrs* addresses = nullptr;
    ASSERT_EQ(getifaddrs(&addresses), 0);
    bool loopback = false;
    for (const struct ifaddrs* entry = addresses; entry != nullptr; entry = entry->ifa_next) {
        EXPECT_STREQ(entry->ifa_name, "lo");
        loopback = loopback || entry->ifa_addr->sa_family == AF_INET;
    }
    freeifaddrs(addresses);
    EXPECT_TRUE(loopback);
}

TEST(scratch_root, the_source_tree_is_readable_and_not_writable) {
    EXPECT_TRUE(path_exists(PROJECT_SOURCE_DIR "/CMakeLists.txt"));
    if (getenv("UPDATE_GOLDEN") == nullptr) {
        EXPECT_FALSE(can_create(PROJECT_SOURCE_DIR "/written_by_a_test"));
        EXPECT_EQ(errno, EROFS);
    }
}

TEST(scratch_root, the_build_folder_is_writable) {
    struct stat folder = {};
    ASSERT_EQ(stat(PROJECT_BINARY_DIR, &folder), 0);
    const bool own = folder.st_uid == 0;  // Not if another user has built.
    EXPECT_EQ(can_create(PROJECT_BINARY_DIR "/written_by_a_test"), own);
}

TEST(scratch_root, limits_space) {
    write_file("/var/opt/norvo/norvossh/kept", "kept\n");
    scratch_root::limit_space("/var/opt/norvo/norvossh", 16384);
    EXPECT_EQ(read_file("/var/opt/norvo/norvossh/kept"), "kept\n");
    const int fd = open("/var/opt/norvo/norvossh/large", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    const std::string page(4096, 'x');
    ssize_t written = 0;
    int pages = 0;
    while ((written = write(fd, page.data(), page.size())) == static_cast<ssize_t>(page.size())) {
        ASSERT_LT(++pages, 5);
    }
    EXPECT_EQ(written, -1);
    EXPECT_EQ(errno, ENOSPC);
    close(fd);
}

TEST(scratch_root, makes_a_directory_read_only_and_writable_again) {
    write_file("/var/opt/norvo/file", "old");
    scratch_root::set_read_only("/var/opt/norvo", true);
    EXPECT_EQ(open("/var/opt/norvo/file", O_WRONLY | O_CLOEXEC), -1);
    EXPECT_EQ(errno, EROFS);
    scratch_root::set_read_only("/var/opt/norvo", false);
    write_file("/var/opt/norvo/file", "new");
    EXPECT_EQ(read_file("/var/opt/norvo/file"), "new");
}

TEST(scratch_root, makes_namespaces_appear_to_exist) {
    struct stat found = {};
    scratch_root::add_namespace_file("vrf-red");
    EXPECT_EQ(stat("/var/run/netns/vrf-red", &found), 0);
    scratch_root::remove_namespace_file("vrf-red");
    scratch_root::remove_namespace_file("vrf-red");
    EXPECT_THAT(directory_names("/run/netns"), IsEmpty());
}

using scratch_root_death = testing::Test;

TEST_F(scratch_root_death, exits_and_signals_are_seen) {
    EXPECT_EXIT(exit(7), testing::ExitedWithCode(7), "");
    EXPECT_EXIT(raise(SIGKILL), testing::KilledBySignal(SIGKILL), "");
    EXPECT_DEATH(abort(), "");
}

// A child that executes the program again stays in the scratch root of its parent.
TEST_F(scratch_root_death, a_program_executed_again_stays_inside) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    write_file("/tmp/seen_by_the_child", "");
    EXPECT_EXIT(exit(path_exists("/tmp/seen_by_the_child") ? 3 : 4), testing::ExitedWithCode(3), "");
}

}  // namespace
