#include "openssh/local_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "scratch.h"

using namespace openssh;
using openssh_test::scratch_directory;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class launcher_local_files : public testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directory(folder_); }

    std::string write(const std::string& name, const std::string& text, mode_t mode = 0644) const {
        return scratch_.write("sshd.d/" + name, text, mode);
    }

    local_source read(std::string_view vrf_name = "red") const { return read_local_files(folder_, vrf_name); }

    scratch_directory scratch_;
    std::string folder_ = scratch_.file("sshd.d");
};

}  // namespace

TEST_F(launcher_local_files, the_vrfs_own_comes_before_that_of_all) {
    write("all.conf", "a");
    write("red.conf", "r");
    write("blue.conf", "b");
    write("red.conf.new", "left behind");
    EXPECT_THAT(read().files,
                ElementsAre(local_file{folder_ + "/red.conf", "r"}, local_file{folder_ + "/all.conf", "a"}));
    EXPECT_THAT(read("").files, ElementsAre(local_file{folder_ + "/all.conf", "a"}));
    EXPECT_THAT(read("all").files, ElementsAre(local_file{folder_ + "/all.conf", "a"}));
    EXPECT_THAT(read().problems, IsEmpty());
}

TEST_F(launcher_local_files, no_folder_and_no_files_are_no_problem) {
    EXPECT_THAT(read().files, IsEmpty());
    std::filesystem::remove(folder_);
    EXPECT_THAT(read().files, IsEmpty());
    EXPECT_THAT(read().problems, IsEmpty());
}

TEST_F(launcher_local_files, what_others_can_write_is_refused) {
    write("red.conf", "r", 0664);
    EXPECT_THAT(read().problems,
                ElementsAre(folder_ + "/red.conf refused: it is not root's, or is writable by others"));
    write("red.conf", "r", 0646);
    EXPECT_EQ(read().problems.size(), 1U);
    EXPECT_THAT(read().files, IsEmpty());
    write("red.conf", "r");
    chmod(folder_.c_str(), 0775);
    EXPECT_THAT(read().problems, ElementsAre(folder_ + " refused: it is not root's, or is writable by others"));
    EXPECT_THAT(read().files, IsEmpty());
}

TEST_F(launcher_local_files, another_users_file_is_refused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can create files of another user";
    }
    ASSERT_EQ(chown(write("red.conf", "r").c_str(), 1, 0), 0);
    EXPECT_EQ(read().problems.size(), 1U);
}

TEST_F(launcher_local_files, links_and_special_files_are_refused) {
    std::filesystem::create_symlink(write("other", "r"), folder_ + "/red.conf");
    EXPECT_THAT(read().problems, ElementsAre(folder_ + "/red.conf refused: it is a symbolic link"));
    std::filesystem::remove(folder_ + "/red.conf");
    ASSERT_EQ(mkfifo((folder_ + "/red.conf").c_str(), 0600), 0);
    EXPECT_THAT(read().problems, ElementsAre(folder_ + "/red.conf refused: it is not a regular file"));
    std::filesystem::remove(folder_ + "/red.conf");
    std::filesystem::create_directory(folder_ + "/red.conf");
    EXPECT_THAT(read().problems, ElementsAre(folder_ + "/red.conf refused: it is not a regular file"));
    const std::string link = scratch_.file("link");
    std::filesystem::create_symlink(folder_, link);
    EXPECT_THAT(read_local_files(link, "red").problems, ElementsAre(link + " refused: it is not a folder"));
}

TEST_F(launcher_local_files, a_file_that_is_too_large_is_refused) {
    write("red.conf", std::string(largest_local_file, '#'));
    EXPECT_THAT(read().problems, IsEmpty());
    write("red.conf", std::string(largest_local_file + 1, '#'));
    EXPECT_THAT(read().problems, ElementsAre(folder_ + "/red.conf refused: it is larger than 65536 bytes"));
}

TEST_F(launcher_local_files, the_accepted_ones_are_kept_and_forgotten) {
    const std::string kept = scratch_.file("accepted/red");
    const std::vector<local_file> files = {{"/a/red.conf", "one\ntwo\n"}, {"/a/all.conf", ""}};
    EXPECT_THAT(read_accepted_files(kept), IsEmpty());
    EXPECT_EQ(keep_accepted_files(kept, files), "");
    EXPECT_EQ(read_accepted_files(kept), files);
    struct stat status;
    ASSERT_EQ(stat(kept.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(keep_accepted_files(kept, {}), "");
    EXPECT_FALSE(openssh_test::exists(kept));
    EXPECT_EQ(keep_accepted_files(kept, {}), "");
}

TEST_F(launcher_local_files, a_damaged_copy_is_as_good_as_none) {
    for (const char* text : {"", "nonsense", "local directives 1\n/a\n9\nshort", "local directives 1\n/a\nx\n"}) {
        EXPECT_THAT(read_accepted_files(scratch_.write("kept", text)), IsEmpty()) << text;
    }
}

TEST(launcher_local_names, the_vrf_is_that_of_the_server_file) {
    EXPECT_EQ(vrf_of_server_file("/var/sshd_config_red"), "red");
    EXPECT_EQ(vrf_of_server_file("/var/sshd_config"), "");
    EXPECT_EQ(local_file_path("/d", "red"), "/d/red.conf");
    EXPECT_EQ(local_file_path("/d", ""), "/d/all.conf");
}
