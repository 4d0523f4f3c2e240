#include "openssh/sftp_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "scratch.h"

using namespace openssh;
using openssh_test::scratch_directory;
using openssh_test::text_of;

namespace {

class launcher_sftp_server : public testing::Test {
  protected:
    void SetUp() override {
        paths_.stock_sftp_server = scratch_.write("stock", "one", 0755);
        paths_.sftp_server = scratch_.file("sftp-server");
    }

    void expect_copy(const char* content) const {
        struct stat status;
        ASSERT_EQ(lstat(paths_.sftp_server.c_str(), &status), 0);
        EXPECT_TRUE(S_ISREG(status.st_mode));
        EXPECT_EQ(status.st_mode & 07777, 0711U);
        EXPECT_EQ(text_of(paths_.sftp_server), content);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(scratch_.path()), {}), 2);
    }

    ino_t inode() const {
        struct stat status = {};
        lstat(paths_.sftp_server.c_str(), &status);
        return status.st_ino;
    }

    scratch_directory scratch_;
    launcher_paths paths_;
};

TEST_F(launcher_sftp_server, is_a_copy_that_users_cannot_read) {
    ASSERT_EQ(symlink("stock", paths_.sftp_server.c_str()), 0);
    EXPECT_EQ(renew_sftp_server(paths_), "");
    expect_copy("one");
    EXPECT_EQ(text_of(paths_.stock_sftp_server), "one");
}

TEST_F(launcher_sftp_server, is_renewed_when_the_original_changes_and_only_then) {
    EXPECT_EQ(renew_sftp_server(paths_), "");
    const ino_t first = inode();
    EXPECT_EQ(renew_sftp_server(paths_), "");
    EXPECT_EQ(inode(), first);
    scratch_.write("stock", "two", 0755);
    EXPECT_EQ(renew_sftp_server(paths_), "");
    expect_copy("two");
    chmod(paths_.sftp_server.c_str(), 0755);
    EXPECT_EQ(renew_sftp_server(paths_), "");
    expect_copy("two");
}

TEST_F(launcher_sftp_server, stays_as_it_is_when_it_cannot_be_renewed) {
    EXPECT_EQ(renew_sftp_server(paths_), "");
    unlink(paths_.stock_sftp_server.c_str());
    EXPECT_THAT(renew_sftp_server(paths_), testing::HasSubstr("stock: No such file"));
    EXPECT_EQ(text_of(paths_.sftp_server), "one");
    paths_.sftp_server = scratch_.file("nowhere/sftp-server");
    scratch_.write("stock", "two", 0755);
    EXPECT_THAT(renew_sftp_server(paths_), testing::HasSubstr("cannot copy"));
}

}  // namespace
