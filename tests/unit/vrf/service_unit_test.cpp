#include "vrf/service_unit.h"

#include <cerrno>

#include "syscall_faults.h"
#include "vrf_test.h"

namespace {

using service_unit_test = vrf_test;

using testing::Contains;
using testing::ElementsAre;

TEST_F(service_unit_test, writes_the_unit_and_its_environment) {
    fake_platform::set_vrf_id("red", 1610612738);
    umask(0);
    errno = 0;
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), 0);
    expect_golden("vrf/golden/sshd_service_red.service", read_file(unit_file("red")));
    expect_golden("vrf/golden/sshd_conf_red.conf", read_file(environment_file("red")));
    EXPECT_EQ(mode_of(unit_file("red")), 0644u);
    EXPECT_EQ(mode_of(environment_file("red")), 0644u);
    EXPECT_THAT(trail(), ElementsAre("vrf_table_lookup(red)", "$ systemctl daemon-reload"));
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("create_sshd_service_config_file - vrf-name:=red, vrfid = 1610612738"));
}

// The number is unsigned and has 32 bits.
TEST_F(service_unit_test, the_largest_vrf_number_is_decimal) {
    fake_platform::set_vrf_id("red", UINT32_MAX);
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), 0);
    EXPECT_THAT(read_file(environment_file("red")), testing::HasSubstr("\nARG8=4294967295\n"));
}

TEST_F(service_unit_test, both_files_exist_before_systemd_reads_them) {
    stub_commands::set_hook("systemctl daemon-reload",
                            "cd /etc/systemd/system && cat sshd_service_red.service "
                            "sshd_conf_red.conf > /tmp/seen_by_systemd");
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), 0);
    EXPECT_EQ(read_file("/tmp/seen_by_systemd"), read_file(unit_file("red")) + read_file(environment_file("red")));
}

// Files are overwritten from the beginning without being truncated.
TEST_F(service_unit_test, a_longer_old_file_keeps_its_end) {
    ASSERT_EQ(create_sshd_service_config_file("vrf-red"), 0);
    const std::string unit = read_file(unit_file("red"));
    const std::string environment = read_file(environment_file("red"));
    write_file(unit_file("red"), std::string(unit.size(), 'x') + "tail of the unit\n");
    write_file(environment_file("red"), std::string(environment.size(), 'x') + "tail of the environment\n");
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), 0);
    EXPECT_EQ(read_file(unit_file("red")), unit + "tail of the unit\n");
    EXPECT_EQ(read_file(environment_file("red")), environment + "tail of the environment\n");
}

TEST_F(service_unit_test, a_missing_name_is_refused) {
    EXPECT_EQ(create_sshd_service_config_file(nullptr), -1);
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("create_sshd_service_config_file - Vrf-name is NULL"));
    EXPECT_EQ(fake_platform::trace_lines().size(), 1u);
    EXPECT_THAT(trail(), ElementsAre());
}

TEST_F(service_unit_test, a_name_without_prefix_is_refused) {
    EXPECT_EQ(create_sshd_service_config_file("red"), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("create_sshd_service_config_file - Vrf name not starting with vrf-"));
    EXPECT_TRUE(traced({"red"}));
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_FALSE(path_exists(unit_file("red")));
}

TEST_F(service_unit_test, a_vrf_without_number_has_no_unit) {
    fake_platform::fail("vrf_table_lookup", ENOENT);
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("Vrf-name:=red, Failed to get the vrf id, Error:= No such file or directory"));
    EXPECT_TRUE(traced({"red", "2"}));
    EXPECT_FALSE(path_exists(unit_file("red")));
    EXPECT_THAT(trail(), ElementsAre("vrf_table_lookup(red)",
                                     "enforcement_failed(unit red, the number of the VRF is unknown: No such file or "
                                     "directory)"));
}

TEST_F(service_unit_test, a_unit_that_cannot_be_opened_is_reported) {
    std::filesystem::create_directory(unit_file("red"));
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("create_sshd_service_config_file, File-name:=" + unit_file("red") +
                         ", File-mode:=0644, Error:=Is a directory(0x15), Service File open failed"));
    EXPECT_TRUE(traced({unit_file("red"), "0644", "21"}));
    EXPECT_FALSE(path_exists(environment_file("red")));
    EXPECT_THAT(stub_commands::log(), ElementsAre());
}

TEST_F(service_unit_test, an_environment_that_cannot_be_opened_is_reported) {
    std::filesystem::create_directory(environment_file("red"));
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("create_sshd_service_config_file, File-name:=" + environment_file("red") +
                         ", File-mode:=0644, Error:=Is a directory(0x15), Conf File open failed"));
    EXPECT_TRUE(traced({environment_file("red"), "0644", "21"}));
    EXPECT_TRUE(path_exists(unit_file("red")));
    EXPECT_THAT(stub_commands::log(), ElementsAre());
}

TEST_F(service_unit_test, a_unit_that_cannot_be_written_is_reported) {
    std::filesystem::create_symlink("/dev/full", unit_file("red"));
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("create_sshd_service_config_file, File-name:=" + unit_file("red") +
                         ", File-mode:=0644, Error:=No space left on device(0x1c), Service File write failed"));
    EXPECT_TRUE(traced({unit_file("red"), "0644", "28"}));
    EXPECT_THAT(stub_commands::log(), ElementsAre());
}

// The trace entry names a mode that the file does not have.
TEST_F(service_unit_test, an_environment_that_cannot_be_written_is_traced_with_another_mode) {
    std::filesystem::create_symlink("/dev/full", environment_file("red"));
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("create_sshd_service_config_file, File-name:=" + environment_file("red") +
                         ", File-mode:=0644, Error:=No space left on device(0x1c), Config File write failed"));
    EXPECT_TRUE(traced({environment_file("red"), "0664", "28"}));
    EXPECT_FALSE(traced({environment_file("red"), "0644", "28"}));
    EXPECT_THAT(stub_commands::log(), ElementsAre());
}

// A failed daemon-reload without errno counts as success.
TEST_F(service_unit_test, a_failed_daemon_reload_without_errno_counts_as_success) {
    stub_commands::fail("systemctl daemon-reload", 1);
    errno = 0;
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), 0);
}

TEST_F(service_unit_test, a_daemon_reload_fails_with_the_current_errno) {
    stub_commands::fail("systemctl daemon-reload", 1);
    errno = EAGAIN;
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Error:=Resource temporarily unavailable(0xb), Failed to reload systemctl "));
    EXPECT_TRUE(traced({"red", "11"}));
    EXPECT_TRUE(path_exists(unit_file("red")));
    EXPECT_TRUE(path_exists(environment_file("red")));
}

TEST_F(service_unit_test, a_daemon_reload_without_a_shell_is_a_failure) {
    command_trail::fail_shell("systemctl daemon-reload", ENOMEM);
    errno = 0;
    EXPECT_EQ(create_sshd_service_config_file("vrf-red"), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Error:=Cannot allocate memory(0xc), Failed to reload systemctl "));
}

TEST_F(service_unit_test, removes_both_files_without_a_daemon_reload) {
    ASSERT_EQ(create_sshd_service_config_file("vrf-red"), 0);
    forget();
    remove_sshd_service_config_file("vrf-red");
    EXPECT_FALSE(path_exists(unit_file("red")));
    EXPECT_FALSE(path_exists(environment_file("red")));
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre());
}

TEST_F(service_unit_test, removing_missing_files_is_only_traced) {
    remove_sshd_service_config_file("vrf-red");
    EXPECT_TRUE(traced({unit_file("red"), "2"}));
    EXPECT_TRUE(traced({environment_file("red"), "2"}));
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre());
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
}

TEST_F(service_unit_test, removing_also_checks_the_name) {
    remove_sshd_service_config_file(nullptr);
    remove_sshd_service_config_file("red");
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("remove_sshd_service_config_file - Vrf-name is NULL",
                            "remove_sshd_service_config_file - Vrf name not starting with vrf-"));
}

TEST_F(service_unit_test, the_longest_name_has_complete_paths) {
    const std::string name(32, 'x');
    ASSERT_EQ(create_sshd_service_config_file(("vrf-" + name).c_str()), 0);
    EXPECT_TRUE(path_exists(unit_file(name)));
    EXPECT_THAT(read_file(environment_file(name)), testing::HasSubstr("ARG3=vrf-" + name + "\n"));
    EXPECT_THAT(read_file(environment_file(name)), testing::HasSubstr("ARG6=" + server_file(name) + "\n"));
}

// Each file operation fails in turn: only completed work is reported as done, and nothing else ends the agent.
TEST_F(service_unit_test, survives_every_failing_file_operation) {
    const auto body = [] {
        command_trail::end();
        return create_sshd_service_config_file("vrf-red") == 0 ? 0 : 1;
    };
    const syscall_faults::outcome whole = syscall_faults::run({}, body);
    ASSERT_EQ(whole.status, 0);
    ASSERT_GT(whole.calls, 3u);
    const std::string unit = read_file(unit_file("red"));
    const std::string environment = read_file(environment_file("red"));
    for (const int error : {ENOSPC, EIO, EROFS, EMFILE}) {
        for (uint32_t call = 1; call <= whole.calls; call++) {
            remove_sshd_service_config_file("vrf-red");
            const auto outcome = syscall_faults::run({syscall_faults::fault::error, call, false, error}, body);
            ASSERT_FALSE(outcome.killed);
            if (outcome.status == 0) {
                EXPECT_EQ(read_file(unit_file("red")), unit) << outcome.name << " " << call;
                EXPECT_EQ(read_file(environment_file("red")), environment) << outcome.name << " " << call;
            } else {
                EXPECT_EQ(outcome.status, 1) << outcome.name << " " << call;
            }
        }
    }
}

TEST_F(service_unit_test, interrupted_and_short_writes_are_continued) {
    const auto body = [] {
        command_trail::end();
        return create_sshd_service_config_file("vrf-red") == 0 ? 0 : 1;
    };
    const uint32_t calls = syscall_faults::run({}, body).calls;
    const std::string unit = read_file(unit_file("red"));
    const std::string environment = read_file(environment_file("red"));
    for (uint32_t call = 1; call <= calls; call++) {
        remove_sshd_service_config_file("vrf-red");
        const auto shortened = syscall_faults::run({syscall_faults::fault::short_write, call, false, 0}, body);
        EXPECT_EQ(shortened.status, 0) << shortened.name;
        EXPECT_EQ(read_file(unit_file("red")), unit) << shortened.name;
        EXPECT_EQ(read_file(environment_file("red")), environment) << shortened.name;
        remove_sshd_service_config_file("vrf-red");
        const auto interrupted = syscall_faults::run({syscall_faults::fault::error, call, false, EINTR}, body);
        if (interrupted.name == "write") {
            EXPECT_EQ(interrupted.status, 0);
            EXPECT_EQ(read_file(unit_file("red")), unit);
            EXPECT_EQ(read_file(environment_file("red")), environment);
        }
    }
}

}  // namespace
