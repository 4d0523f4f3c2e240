#include "linux/rehearsal/private_folders.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "core/paths.h"
#include "linux/rehearsal/isolated_process.h"
#include "unit/linux/platform_test_support.h"

namespace {

using platform_test::read_file;
using platform_test::write_file;

/// Runs `work` in an isolated process with private folders and returns the text that it returns.
std::string in_isolation(const std::function<std::string(const private_folders& folders)>& work) {
    std::optional<private_folders> folders;
    const isolated_process process([&] { return folders.emplace(private_folder_rows()).mount(); },
                                   [&](int connection, const std::string& problem) {
                                       const std::string text = problem.empty() ? work(*folders) : problem;
                                       send(connection, text.data(), text.size(), 0);
                                   });
    EXPECT_EQ(process.status(), PLATFORM_OK);
    std::string text;
    char buffer[4096];
    for (ssize_t count = 0; (count = recv(process.connection(), buffer, sizeof buffer, 0)) > 0;) {
        text.append(buffer, static_cast<size_t>(count));
    }
    return text;
}

std::string told(const std::vector<private_change>& changes) {
    std::string text;
    for (const private_change& change : changes) {
        text += std::string(rehearsed_change_name(change.file.change)) + " " + change.file.path + "\n";
    }
    return text;
}

std::string outcome(int result) {
    return result >= 0 ? "done" : strerror(errno);
}

class private_folders_test : public testing::Test {
  protected:
    private_folders_test() {
        write_file(std::string(paths::server_file), "Port 22\n");
        write_file(std::string(paths::vrf_server_file_prefix) + "red", "Port 22\n");
        write_file(std::string(paths::service_unit_prefix) + "red.service", "unit\n");
        write_file("/etc/systemd/system/other.service", "other\n");
        write_file("/etc/motd", "hello\n");
        write_file("/run/ssh_cfg_agent/control.sock", "a socket\n");
        write_file("/run/dbus/system_bus_socket", "a socket\n");
    }
};

TEST_F(private_folders_test, changes_are_told_and_stay_private) {
    const std::string red = std::string(paths::vrf_server_file_prefix) + "red";
    const std::string unit = std::string(paths::service_unit_prefix) + "blue.service";
    EXPECT_EQ(in_isolation([&](const private_folders& folders) {
                  write_file(paths::server_file, "Port 830\n");
                  std::filesystem::remove(red);
                  write_file(unit, "unit\n");
                  write_file("/etc/motd", "hello\n");
                  write_file("/etc/pam.d/norvosshd", "auth\n");
                  write_file("/tmp/norvo-ssh/access-list/red.nft", "flush\n");
                  write_file(paths::temporary_file, "half\n");
                  write_file(paths::restart_record, "1\n");
                  return told(folders.changes());
              }),
              "created /etc/pam.d/norvosshd\n"
              "created " +
                  unit +
                  "\n"
                  "created /tmp/norvo-ssh/access-list/red.nft\n"
                  "changed /var/opt/norvo/norvossh/sshd_config\n"
                  "deleted " +
                  red + "\n");
    EXPECT_EQ(read_file(paths::server_file), "Port 22\n");
    EXPECT_EQ(read_file(red), "Port 22\n");
    for (const std::string& path : {unit, std::string("/etc/pam.d/norvosshd"), std::string(paths::restart_record),
                                    std::string("/tmp/norvo-ssh"), std::string("/tmp/machine")}) {
        EXPECT_FALSE(std::filesystem::exists(path)) << path;
    }
}

TEST_F(private_folders_test, what_the_machine_had_is_known) {
    EXPECT_EQ(in_isolation([](const private_folders& folders) {
                  write_file(paths::server_file, "Port 830\n");
                  const std::vector<private_change> changes = folders.changes();
                  return changes.at(0).before.value_or("none") + changes.at(0).after.value_or("none") +
                         folders.machine_content(paths::server_file).value_or("none") +
                         folders.machine_content("/var/opt/norvo/norvossh/missing").value_or("none");
              }),
              "Port 22\nPort 830\nPort 22\nnone");
}

TEST_F(private_folders_test, every_file_that_the_agent_writes_is_private) {
    for (const char* path : {paths::server_file, paths::client_file, paths::temporary_file, paths::banner_file,
                             paths::aaa_banner_file, paths::pam_file, paths::pam_temporary_file, paths::restart_record,
                             paths::restart_record_temporary, paths::service_probe_file, paths::exec_session_file}) {
        EXPECT_EQ(in_isolation([path](const private_folders&) {
                      write_file(path, "rehearsed\n");
                      return read_file(path);
                  }),
                  "rehearsed\n")
            << path;
        EXPECT_NE(platform_test::read_file(path), "rehearsed\n") << path;
    }
}

TEST_F(private_folders_test, everything_else_can_be_read_and_not_written) {
    EXPECT_EQ(in_isolation([](const private_folders&) {
                  return read_file("/etc/systemd/system/other.service") +
                         outcome(open("/etc/systemd/system/other.service", O_WRONLY)) + ", " +
                         outcome(open("/pkg/new", O_WRONLY | O_CREAT, 0600)) + ", " +
                         outcome(access("/etc/passwd", R_OK)) + ", " +
                         outcome(access("/run/ssh_cfg_agent/control.sock", F_OK)) + ", " +
                         outcome(access("/run/dbus/system_bus_socket", F_OK));
              }),
              "other\nRead-only file system, Read-only file system, done, No such file or directory, "
              "No such file or directory");
}

TEST_F(private_folders_test, the_process_has_no_power_over_the_machine) {
    int inherited[2];
    ASSERT_EQ(pipe(inherited), 0);
    const pid_t parent = getpid();
    EXPECT_EQ(in_isolation([&](const private_folders&) {
                  write(inherited[1], "x", 1);
                  return outcome(kill(parent, 0) == 0 && parent != 1 ? 0 : -1) + ", " + outcome(sethostname("x", 1)) +
                         ", " + outcome(unshare(CLONE_NEWNET)) + ", " + std::to_string(getpid());
              }),
              "No such process, Operation not permitted, Operation not permitted, 1");
    close(inherited[1]);
    char byte = 0;
    EXPECT_EQ(read(inherited[0], &byte, 1), 0) << "a descriptor was still open";
    close(inherited[0]);
}

TEST_F(private_folders_test, what_it_starts_dies_with_it) {
    write_file("/var/opt/norvo/norvossh/pid", "");
    std::optional<private_folders> folders;
    pid_t child = 0;
    {
        const isolated_process process([&] { return folders.emplace(private_folder_rows()).mount(); },
                                       [](int connection, const std::string&) {
                                           const pid_t sleeper = fork();
                                           if (sleeper == 0) {
                                               pause();
                                           }
                                           std::string number;
                                           // As the machine sees it.
                                           number = std::filesystem::read_symlink("/proc/self").string();
                                           send(connection, number.data(), number.size(), 0);
                                           pause();
                                       });
        char number[32] = {};
        ASSERT_GT(recv(process.connection(), number, sizeof number - 1, 0), 0);
        child = static_cast<pid_t>(std::stoi(number));
        EXPECT_EQ(kill(child, 0), 0);
    }
    for (int i = 0; i < 500 && kill(child, 0) == 0; ++i) {
        usleep(10'000);
    }
    EXPECT_EQ(kill(child, 0), -1);
}

TEST(isolated_process_test, a_failed_preparation_is_told_to_the_work) {
    const isolated_process process(
        [] { return std::string("no room"); },
        [](int connection, const std::string& problem) { send(connection, problem.data(), problem.size(), 0); });
    char text[32] = {};
    ASSERT_GT(recv(process.connection(), text, sizeof text - 1, 0), 0);
    EXPECT_STREQ(text, "no room");
}

}  // namespace
