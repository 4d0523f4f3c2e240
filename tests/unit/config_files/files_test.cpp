#include "config_files/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>

#include "../agent_test.h"
#include "call_faults.h"
#include "core/debug.h"
#include "core/trace.h"
#include "scratch_root.h"
#include "usage.h"

namespace {

using files_test = agent_test;
using testing::ElementsAre;

constexpr char directory[] = "/var/opt/norvo/norvossh/";
constexpr char file[] = "/var/opt/norvo/norvossh/some_file";

/// The arguments of the only entry in the error trace.
std::vector<std::string> traced_arguments() {
    const auto lines = fake_platform::trace_lines_of("ssh/cfg-agent/error");
    EXPECT_EQ(lines.size(), 1u);
    return lines.empty() ? std::vector<std::string>() : lines[0].arguments;
}

TEST_F(files_test, a_file_exists_if_it_is_readable) {
    EXPECT_EQ(file_exists(nullptr), -1);
    EXPECT_EQ(file_exists(file), 0);
    write_file(file, "");
    const size_t descriptors = open_descriptors();
    EXPECT_EQ(file_exists(file), 1);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(files_test, creates_directory_and_file) {
    std::filesystem::create_directories("/var/opt/norvo");
    EXPECT_EQ(create_file_in_dir(directory, file), 0);
    EXPECT_EQ(mode_of(directory), mode_t{0755});
    EXPECT_EQ(read_file(file), "");
    EXPECT_TRUE(path_exists(file));
}

TEST_F(files_test, empties_the_file_in_an_existing_directory) {
    write_file(file, "something");
    EXPECT_EQ(create_file_in_dir(directory, file), 0);
    EXPECT_EQ(read_file(file), "");
}

TEST_F(files_test, fails_if_the_directory_cannot_be_created) {
    trace_initialise();
    std::filesystem::remove_all("/var/opt/norvo");
    EXPECT_EQ(create_file_in_dir("/var/opt/norvo/norvossh/", file), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(traced_arguments(), ElementsAre(directory, std::to_string(ENOENT)));
}

TEST_F(files_test, fails_if_the_file_cannot_be_created) {
    std::filesystem::create_directories(file);
    EXPECT_EQ(create_file_in_dir(directory, file), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_THAT(traced_arguments(), ElementsAre(file, std::to_string(EISDIR)));
}

TEST_F(files_test, fails_if_the_file_cannot_be_closed) {
    call_faults::fail_call("fclose", EIO, call_faults::once, 1, file);
    EXPECT_EQ(create_file_in_dir(directory, file), -1);
    EXPECT_EQ(errno, EIO);
}

TEST_F(files_test, copies_through_the_shell) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    write_file("/tmp/source", "text\n");
    EXPECT_EQ(copy_file("/tmp/source", "/tmp/destination"), 0);
    EXPECT_EQ(read_file("/tmp/destination"), "text\n");
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("copy_file, srcfile:=/tmp/source, dstfile:=/tmp/destination",
                                                          "cp /tmp/source /tmp/destination"));
}

TEST_F(files_test, a_failed_copy_is_reported) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    trace_initialise();
    std::remove("/tmp/missing");
    errno = 0;
    EXPECT_EQ(copy_file("/tmp/missing", "/tmp/destination"), -1);
    ASSERT_EQ(fake_platform::debug_texts().size(), 3u);
    EXPECT_EQ(fake_platform::debug_texts()[2],
              "Src-file:=/tmp/missing, Dst-file:=/tmp/destination, Error:=Success(0x0) copy of file failed");
    EXPECT_EQ(fake_platform::trace_lines_of("ssh/cfg-agent/error").size(), 1u);
}

TEST_F(files_test, the_path_of_a_vrfs_file) {
    char path[100];
    vrf_config_file_path("red", path, sizeof path);
    EXPECT_STREQ(path, "/var/opt/norvo/norvossh/sshd_config_red");
}

}  // namespace
