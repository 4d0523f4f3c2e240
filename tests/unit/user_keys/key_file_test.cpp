#include "user_keys/key_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "scratch_root.h"

namespace {

using testing::UnorderedElementsAre;

class key_file_test : public testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directories("/var/lib/ssh_cfg_agent"); }

    static std::string line(const char* user) {
        std::string read = "before";
        EXPECT_EQ(key_file_read(user, read), PLATFORM_OK);
        return read;
    }

    static std::vector<std::string> users() {
        std::vector<std::string> found;
        EXPECT_EQ(key_file_list(found), PLATFORM_OK);
        return found;
    }

    static std::string path(const char* name) { return std::string(key_file_directory) + '/' + name; }
};

TEST_F(key_file_test, is_written_replaced_and_removed) {
    EXPECT_EQ(line("alice"), "");
    EXPECT_EQ(key_file_remove("alice"), PLATFORM_OK);
    ASSERT_EQ(key_file_write("alice", "one\n"), PLATFORM_OK);
    EXPECT_EQ(line("alice"), "one\n");
    ASSERT_EQ(key_file_write("alice", "two\n"), PLATFORM_OK);
    EXPECT_EQ(line("alice"), "two\n");
    EXPECT_THAT(users(), UnorderedElementsAre("alice"));
    EXPECT_EQ(key_file_remove("alice"), PLATFORM_OK);
    EXPECT_EQ(key_file_remove("alice"), PLATFORM_OK);
    EXPECT_EQ(line("alice"), "");
    EXPECT_THAT(users(), testing::IsEmpty());
}

TEST_F(key_file_test, is_readable_only_by_root) {
    ASSERT_EQ(key_file_write("alice", "one\n"), PLATFORM_OK);
    struct stat status = {};
    ASSERT_EQ(stat(key_file_directory, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
    ASSERT_EQ(stat(path("alice").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(key_file_test, is_kept_when_its_replacement_cannot_be_written) {
    ASSERT_EQ(key_file_write("alice", "one\n"), PLATFORM_OK);
    scratch_root::set_read_only(key_file_directory, true);
    EXPECT_EQ(key_file_write("alice", "two\n"), platform_status{EROFS});
    EXPECT_EQ(key_file_remove("alice"), platform_status{EROFS});
    EXPECT_EQ(line("alice"), "one\n");
    scratch_root::set_read_only(key_file_directory, false);
    scratch_root::limit_space(key_file_directory, 64U * 1024);
    std::ofstream(path(".filler")) << std::string(1024U * 1024, 'x');
    EXPECT_EQ(key_file_write("alice", "two\n"), platform_status{ENOSPC});
    EXPECT_EQ(line("alice"), "one\n");
    EXPECT_FALSE(std::filesystem::exists(path(".new")));
    EXPECT_THAT(users(), UnorderedElementsAre("alice"));
}

TEST_F(key_file_test, is_neither_a_link_nor_larger_than_a_users_keys) {
    ASSERT_EQ(key_file_write("alice", "one\n"), PLATFORM_OK);
    std::filesystem::create_symlink(path("alice"), path("bob"));
    std::string read = "before";
    EXPECT_EQ(key_file_read("bob", read), platform_status{ELOOP});
    std::filesystem::create_directory(path("carol"));
    EXPECT_EQ(key_file_read("carol", read), platform_status{EISDIR});
    ASSERT_EQ(key_file_write("dave", std::string(64 * 8193 + 1, 'x')), PLATFORM_OK);
    EXPECT_EQ(key_file_read("dave", read), platform_status{EFBIG});
    EXPECT_EQ(read, "before");
    ASSERT_EQ(key_file_write("dave", std::string(64 * 8193, 'x')), PLATFORM_OK);
    EXPECT_EQ(key_file_read("dave", read), PLATFORM_OK);
}

}  // namespace
