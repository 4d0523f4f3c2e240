#include "openssh/state_files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <set>

#include "scratch.h"

using namespace openssh;
using openssh_test::exists;
using openssh_test::scratch_directory;
using openssh_test::text_of;

namespace {

mode_t mode_of(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

}  // namespace

TEST(launcher_state_files, reads_any_bytes) {
    const scratch_directory scratch;
    const std::string bytes("a\0b\n", 4);
    std::string text;
    EXPECT_EQ(read_file(scratch.write("f", bytes), text), "");
    EXPECT_EQ(text, bytes);
}

TEST(launcher_state_files, refuses_directories_pipes_and_huge_files_and_leaves_the_text_alone) {
    const scratch_directory scratch;
    std::string text = "before";
    EXPECT_EQ(read_file(scratch.file("none"), text),
              "cannot open " + scratch.file("none") + ": No such file or directory");
    EXPECT_EQ(read_file(scratch.path(), text), scratch.path() + " is not a regular file");
    ASSERT_EQ(mkfifo(scratch.file("pipe").c_str(), 0600), 0);
    EXPECT_EQ(read_file(scratch.file("pipe"), text), scratch.file("pipe") + " is not a regular file");
    EXPECT_NE(read_file(scratch.write("big", std::string(largest_file + 1, 'x')), text), "");
    EXPECT_EQ(text, "before");
    EXPECT_EQ(read_file(scratch.write("big", std::string(largest_file, 'x')), text), "");
}

TEST(launcher_state_files, creates_directories_for_root_only_below_readable_parents) {
    const scratch_directory scratch;
    const mode_t before = umask(022);
    EXPECT_EQ(ensure_directory(scratch.file("a/b/c"), 0700), "");
    umask(before);
    EXPECT_EQ(mode_of(scratch.file("a/b/c")), 0700U);
    EXPECT_EQ(mode_of(scratch.file("a/b")), 0755U);
    EXPECT_EQ(ensure_directory(scratch.file("a/b/c"), 0700), "");
}

TEST(launcher_state_files, trusts_no_directory_that_others_can_write_to) {
    const scratch_directory scratch;
    ASSERT_EQ(mkdir(scratch.file("open").c_str(), 0700), 0);
    for (const mode_t mode : {0777, 0720, 0702}) {
        ASSERT_EQ(chmod(scratch.file("open").c_str(), mode), 0);
        EXPECT_EQ(ensure_directory(scratch.file("open"), 0700),
                  scratch.file("open") + " is owned by another user or writable by others");
    }
    ASSERT_EQ(symlink("/tmp", scratch.file("link").c_str()), 0);
    EXPECT_EQ(ensure_directory(scratch.file("link"), 0700), scratch.file("link") + " is not a directory");
    scratch.write("file", "");
    EXPECT_EQ(ensure_directory(scratch.file("file"), 0700), scratch.file("file") + " is not a directory");
}

TEST(launcher_state_files, a_new_file_replaces_a_link_instead_of_following_it) {
    const scratch_directory scratch;
    const std::string target = scratch.write("target", "precious");
    ASSERT_EQ(symlink(target.c_str(), scratch.file("f").c_str()), 0);
    EXPECT_EQ(write_new_file(scratch.file("f"), "new"), "");
    EXPECT_EQ(text_of(target), "precious");
    EXPECT_EQ(text_of(scratch.file("f")), "new");
    EXPECT_EQ(mode_of(scratch.file("f")), 0600U);
}

TEST(launcher_state_files, a_failed_replacement_leaves_the_old_text_and_no_other_file) {
    const scratch_directory scratch;
    ASSERT_EQ(mkdir(scratch.file("f").c_str(), 0700), 0);
    scratch.write("f/inside", "");
    EXPECT_NE(replace_file(scratch.file("f"), "new"), "");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(scratch.path()), {}), 1);
    EXPECT_NE(replace_file(scratch.file("none/f"), "new"), "");
    EXPECT_EQ(replace_file(scratch.file("g"), "one"), "");
    EXPECT_EQ(replace_file(scratch.file("g"), "two"), "");
    EXPECT_EQ(text_of(scratch.file("g")), "two");
}

// The file can be created but not written, as on a full file system.
TEST(launcher_state_files, a_full_disk_leaves_no_partial_file) {
    const scratch_directory scratch;
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small{1024, limit.rlim_max};
    const auto before = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::string error = write_new_file(scratch.file("f"), std::string(4096, 'x'));
    setrlimit(RLIMIT_FSIZE, &limit);
    signal(SIGXFSZ, before);
    EXPECT_EQ(error, "cannot write " + scratch.file("f") + ": File too large");
    EXPECT_FALSE(exists(scratch.file("f")));
}

TEST(launcher_state_files, only_files_can_be_readable_files) {
    const scratch_directory scratch;
    EXPECT_TRUE(is_readable_file(scratch.write("f", "")));
    EXPECT_FALSE(is_readable_file(scratch.path()));
    EXPECT_FALSE(is_readable_file(scratch.file("none")));
}

TEST(launcher_state_files, names_translations_after_the_server_file) {
    const std::string agent = "/var/opt/norvo/norvossh/";
    EXPECT_EQ(translation_files_of("/run/x", agent, agent + "sshd_config_red").current, "/run/x/sshd_config_red");
    EXPECT_EQ(translation_files_of("/run/x", agent, "/tmp/my config").current, "/run/x/+tmp+my%20config");
}

TEST(launcher_state_files, every_server_file_has_its_own_translations) {
    const std::string agent = "/var/opt/norvo/norvossh/";
    std::set<std::string> names = {"/run/x/~algorithms"};
    for (const std::string& file :
         {agent + "sshd_config_red", agent + "sshd_config_red~refused", agent + "sub/sshd_config_red",
          agent + "+tmp+sshd_config_red", std::string("/tmp/sshd_config_red"), std::string("/tmp+sshd_config_red"),
          std::string("/tmp%2Bsshd_config_red"), std::string("/sshd_config_red"), agent + "~algorithms"}) {
        const translation_files made = translation_files_of("/run/x", agent, file);
        for (const std::string& name : {made.current, made.candidate, made.refused}) {
            EXPECT_TRUE(names.insert(name).second) << name;
            EXPECT_EQ(std::filesystem::path(name).parent_path(), "/run/x");
        }
    }
}
