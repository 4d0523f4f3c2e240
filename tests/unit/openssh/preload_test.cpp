#include "openssh/preload.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <vector>

#include "scratch.h"

using namespace openssh;
using openssh_test::scratch_directory;

namespace {

std::string log_file(std::vector<const char*> words) {
    words.insert(words.begin(), "ssh_csm");
    const auto count = static_cast<int>(words.size());
    words.push_back(nullptr);
    return log_file_of(count, const_cast<char* const*>(words.data()));
}

std::string value_of(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "(unset)";
}

}  // namespace

TEST(preload, is_a_library_that_nobody_else_can_write_to) {
    const scratch_directory folder;
    launcher_paths paths;
    paths.session_reporter = folder.file("reporter.so");
    EXPECT_EQ(session_reporter_of(paths), "") << "not installed";
    folder.write("reporter.so", "", 0644);
    EXPECT_EQ(session_reporter_of(paths), paths.session_reporter);
    folder.write("reporter.so", "", 0664);
    EXPECT_EQ(session_reporter_of(paths), "") << "the group can write to it";
    folder.write("reporter.so", "", 0646);
    EXPECT_EQ(session_reporter_of(paths), "") << "everyone can write to it";
    std::filesystem::remove(paths.session_reporter);
    std::filesystem::create_directory(paths.session_reporter);
    EXPECT_EQ(session_reporter_of(paths), "") << "a folder";
}

TEST(preload, follows_libraries_that_are_already_loaded) {
    unsetenv("LD_PRELOAD");
    load_into_sshd("");
    EXPECT_EQ(value_of("LD_PRELOAD"), "(unset)");
    load_into_sshd("/one.so");
    EXPECT_EQ(value_of("LD_PRELOAD"), "/one.so");
    load_into_sshd("/two.so");
    EXPECT_EQ(value_of("LD_PRELOAD"), "/one.so:/two.so");
}

TEST(preload, of_a_client_records_the_previous_setting) {
    unsetenv("LD_PRELOAD");
    setenv("SSH_CSM_LD_PRELOAD", "left over", 1);
    setenv("SSH_CSM_LOG_FILE", "left over", 1);
    load_into_ssh("/one.so", "");
    EXPECT_EQ(value_of("LD_PRELOAD"), "/one.so");
    EXPECT_EQ(value_of("SSH_CSM_LD_PRELOAD"), "(unset)");
    EXPECT_EQ(value_of("SSH_CSM_LOG_FILE"), "(unset)");
    EXPECT_EQ(value_of("SSH_CSM_REPORTS"), "1");

    setenv("LD_PRELOAD", "/users.so", 1);
    load_into_ssh("/one.so", "/tmp/log");
    EXPECT_EQ(value_of("LD_PRELOAD"), "/users.so:/one.so");
    EXPECT_EQ(value_of("SSH_CSM_LD_PRELOAD"), "/users.so");
    EXPECT_EQ(value_of("SSH_CSM_LOG_FILE"), "/tmp/log");
}

TEST(preload, of_a_client_without_the_library_changes_nothing) {
    unsetenv("SSH_CSM_REPORTS");
    setenv("LD_PRELOAD", "/users.so", 1);
    load_into_ssh("", "/tmp/log");
    EXPECT_EQ(value_of("LD_PRELOAD"), "/users.so");
    EXPECT_EQ(value_of("SSH_CSM_REPORTS"), "(unset)");
}

TEST(preload, finds_the_log_file_among_sshs_arguments) {
    EXPECT_EQ(log_file({"host"}), "");
    EXPECT_EQ(log_file({"-E", "/log", "host"}), "/log");
    EXPECT_EQ(log_file({"-vE/log", "host"}), "/log");
    EXPECT_EQ(log_file({"-p", "22", "host", "-E", "/log", "command"}), "/log");
    EXPECT_EQ(log_file({"host", "command", "-E", "/log"}), "") << "belongs to the command";
    EXPECT_EQ(log_file({"-o", "-E", "host", "x"}), "") << "the value of an option";
    EXPECT_EQ(log_file({"--", "host", "-E", "/log"}), "");
    EXPECT_EQ(log_file({}), "");
    EXPECT_EQ(log_file({"-E"}), "");
    EXPECT_EQ(log_file({"-?", "-E", "/log", "host"}), "/log");
}

TEST(server_environment, names_the_vrf) {
    name_vrf("/var/opt/norvo/norvossh/sshd_config_red");
    EXPECT_STREQ(std::getenv("SSH_CFG_VRF"), "red");
    name_vrf("/tmp/some_file");
    EXPECT_EQ(std::getenv("SSH_CFG_VRF"), nullptr);
    EXPECT_EQ(vrf_of("sshd_config_a.b-c"), "a.b-c");
    EXPECT_EQ(vrf_of("/x/sshd_config"), "");
}
