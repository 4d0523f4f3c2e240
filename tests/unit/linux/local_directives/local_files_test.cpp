#include "linux/local_directives/local_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "unit/linux/platform_test_support.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char red[] = "/etc/ssh_cfg_agent/sshd.d/red.conf";

TEST(local_files, names_are_those_of_vrfs) {
    for (const char* good : {"red", "all", "vrf-1.2_x"}) {
        EXPECT_TRUE(local_file_name_is_valid(good)) << good;
    }
    for (const std::string& bad : {std::string(), std::string("../red"), std::string(".red"), std::string("-red"),
                                   std::string("a b"), std::string("a\n"), std::string(300, 'a')}) {
        EXPECT_FALSE(local_file_name_is_valid(bad)) << bad;
    }
    EXPECT_EQ(local_file_path_of("red"), red);
}

TEST(local_files, a_file_is_made_replaced_and_removed) {
    std::string text = "old";
    EXPECT_EQ(local_file_read("red", text), platform_status{PLATFORM_OK});
    EXPECT_EQ(text, "");
    EXPECT_EQ(local_file_replace("red", "PermitRootLogin no\n"), platform_status{PLATFORM_OK});
    EXPECT_EQ(local_file_read("red", text), platform_status{PLATFORM_OK});
    EXPECT_EQ(text, "PermitRootLogin no\n");
    struct stat status = {};
    ASSERT_EQ(stat(red, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
    EXPECT_EQ(local_file_replace("red", ""), platform_status{PLATFORM_OK});
    EXPECT_FALSE(std::filesystem::exists(red));
    EXPECT_EQ(local_file_replace("red", ""), platform_status{PLATFORM_OK});
}

TEST(local_files, a_link_is_neither_read_nor_followed_by_a_change) {
    ASSERT_EQ(local_file_replace("blue", "DebianBanner no\n"), platform_status{PLATFORM_OK});
    std::filesystem::create_symlink("blue.conf", red);
    std::string text;
    EXPECT_EQ(local_file_read("red", text), platform_status{ELOOP});
    EXPECT_EQ(local_file_replace("red", "PermitRootLogin no\n"), platform_status{PLATFORM_OK});
    EXPECT_FALSE(std::filesystem::is_symlink(red));
    EXPECT_EQ(local_file_read("blue", text), platform_status{PLATFORM_OK});
    EXPECT_EQ(text, "DebianBanner no\n");
}

TEST(local_files, the_vrfs_with_files_of_their_own) {
    EXPECT_THAT(local_file_vrfs(), IsEmpty());
    for (const char* name : {"red", "blue", "all"}) {
        ASSERT_EQ(local_file_replace(name, "# nothing\n"), platform_status{PLATFORM_OK});
    }
    platform_test::write_file("/etc/ssh_cfg_agent/sshd.d/red.conf.new", "");
    platform_test::write_file("/etc/ssh_cfg_agent/sshd.d/.conf", "");
    EXPECT_THAT(local_file_vrfs(), ElementsAre("blue", "red"));
}

TEST(local_files, directives_are_found_behind_their_places) {
    const auto found = local_directives_in(
        "PermitRootLogin no\n# local: /a, line 1\nDebianBanner no\n# another\nMatch LocalPort 830\n    PermitTTY no\n"
        "# local: /a, line 2\nMatch all\n    # local: /a, line 3\n    PermitTTY no\n");
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[0].place, "/a, line 1");
    EXPECT_EQ(found[0].text, "DebianBanner no");
    EXPECT_EQ(found[1].text, "Match all");
    EXPECT_EQ(found[2].place, "/a, line 3");
    EXPECT_EQ(found[2].text, "    PermitTTY no");
}

}  // namespace
