#include "common/launch_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* red = "/run/ssh_cfg_agent/openssh/sshd_config_red";

launch_record last_good() {
    launch_record record;
    record.in_use = launch_file::last_good;
    record.process = 4711;
    record.server_file = "/var/opt/norvo/norvossh/sshd_config_red";
    record.config = red;
    record.reason = "sshd rejects the file (exit status 255): line 12: bad";
    record.not_in_force = {"one limit", "another"};
    return record;
}

constexpr const char* last_good_text =
    "in_use last_good\n"
    "process 4711\n"
    "server_file /var/opt/norvo/norvossh/sshd_config_red\n"
    "config /run/ssh_cfg_agent/openssh/sshd_config_red\n"
    "reason sshd rejects the file (exit status 255): line 12: bad\n"
    "not_in_force one limit\n"
    "not_in_force another\n";

}  // namespace

TEST(launch_record, consists_of_keys_and_values) {
    EXPECT_EQ(launch_record_format(last_good()), last_good_text);
    launch_record record;
    ASSERT_TRUE(launch_record_parse(last_good_text, record));
    EXPECT_EQ(launch_record_format(record), last_good_text);
    EXPECT_EQ(record.in_use, launch_file::last_good);
    EXPECT_EQ(record.process, 4711);
    EXPECT_THAT(record.not_in_force, ElementsAre("one limit", "another"));
}

TEST(launch_record, a_value_stays_on_its_line) {
    launch_record record = last_good();
    record.reason = "a\nin_use current\x1b[2J\x7f";
    launch_record read;
    ASSERT_TRUE(launch_record_parse(launch_record_format(record), read));
    EXPECT_EQ(read.in_use, launch_file::last_good);
    EXPECT_EQ(read.reason, "a in_use current [2J ");
}

TEST(launch_record, keys_of_a_later_version_are_ignored) {
    launch_record record;
    ASSERT_TRUE(launch_record_parse("in_use current\nweather fine\n\nempty", record));
    EXPECT_EQ(record.in_use, launch_file::current);
    EXPECT_THAT(record.not_in_force, IsEmpty());
}

TEST(launch_record, a_damaged_text_is_refused) {
    launch_record record = last_good();
    for (const char* text : {"", "\n", "in_use", "in_use \n", "in_use perhaps\n", "process 1\n",
                             "in_use none\nprocess x\n", "in_use none\nprocess -1\n"}) {
        EXPECT_FALSE(launch_record_parse(text, record)) << text;
        EXPECT_EQ(record.process, 4711) << text;
    }
}

TEST(launch_record, is_found_by_vrf_name) {
    std::filesystem::create_directories("/run/ssh_cfg_agent/openssh");
    launch_record record = last_good();
    EXPECT_EQ(launch_record_read("red", record), ENOENT);
    EXPECT_EQ(record.process, 4711);
    std::ofstream(launch_record_path(red)) << "in_use current\nprocess 7\n";
    EXPECT_EQ(launch_record_read("red", record), PLATFORM_OK);
    EXPECT_EQ(record.in_use, launch_file::current);
    EXPECT_EQ(record.process, 7);
    EXPECT_EQ(record.reason, "");
    std::ofstream(launch_record_path(red)) << "in_use perhaps\n";
    EXPECT_EQ(launch_record_read("red", record), EBADMSG);
    EXPECT_EQ(record.process, 7);
}
