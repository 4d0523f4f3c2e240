#include "openssh/comparison.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "openssh/launch.h"
#include "scratch.h"

using namespace openssh;
using openssh_test::scratch_directory;
using openssh_test::text_of;

namespace {

/// Servers that were prepared by the launcher and whose process is this one.
class launcher_comparison : public testing::Test {
  protected:
    void SetUp() override {
        openssh_test::ensure_sshd_directory();
        key_ = scratch_.make_host_key();
        paths_ = openssh_test::launcher_paths_in(scratch_);
        for (const char* name : {"sshd_config_red", "sshd_config_blue"}) {
            scratch_.write(name, "HostKey " + key_ + "\nPort 22\n");
            start(name);
        }
    }

    void start(const std::string& name, pid_t process = getpid()) {
        launch_options options;
        options.file = scratch_.file(name);
        const reporter to{.server_file = options.file};
        launch prepared;
        ASSERT_EQ(prepare_launch(paths_, options, to, prepared), launch_ready);
        prepared.record.process = process;
        keep_record(paths_, prepared.record, to);
    }

    std::string translated(const std::string& name) const { return paths_.state_directory + "/" + name; }

    std::string differences() {
        std::string lines = "left from before";
        EXPECT_EQ(compare_running_servers(paths_, lines), "");
        return lines;
    }

    size_t count_of_files() const {
        return std::distance(std::filesystem::directory_iterator(paths_.state_directory), {});
    }

    scratch_directory scratch_;
    launcher_paths paths_;
    std::string key_;
};

}  // namespace

TEST_F(launcher_comparison, servers_that_would_be_started_alike_are_not_named) {
    paths_.sshd = scratch_.write_program("sshd", "echo >>" + scratch_.file("tests") + "\n");
    scratch_.write("sshd_config_red", "HostKey " + key_ + "\nPort 23\n");
    EXPECT_EQ(differences(), "") << "whether the server file has changed since is for the agent to tell";
    EXPECT_EQ(text_of(scratch_.file("tests")), "") << "sshd has nothing to say about texts that are the same";
}

TEST_F(launcher_comparison, a_program_that_was_installed_since_is_named_by_the_setting) {
    scratch_.write_program("authorized_keys", "exit 0\n");
    start("sshd_config_blue");
    const size_t before = count_of_files();
    EXPECT_EQ(differences(), "sshd_config_red authorizedkeyscommand, authorizedkeyscommanduser\n");
    EXPECT_EQ(count_of_files(), before);
}

TEST_F(launcher_comparison, a_host_key_that_was_missing_at_the_start_is_named) {
    const std::string other = scratch_.file("other");
    scratch_.write("sshd_config_red", "HostKey " + key_ + "\nHostKey " + other + "\nPort 22\n");
    start("sshd_config_red");
    EXPECT_EQ(differences(), "");
    scratch_.make_host_key("other");
    EXPECT_EQ(differences(), "sshd_config_red hostkey\n");
}

TEST_F(launcher_comparison, what_sshd_reads_alike_is_no_difference) {
    std::string text = text_of(translated("sshd_config_red"));
    text.replace(text.find("Port 22"), 7, "port  22");
    scratch_.write("state/sshd_config_red", text);
    EXPECT_EQ(differences(), "");
}

TEST_F(launcher_comparison, a_text_that_sshd_cannot_read_is_named_by_its_lines) {
    scratch_.write("state/sshd_config_red", text_of(translated("sshd_config_red")) + "Rubbish 1\n");
    EXPECT_EQ(differences(), "sshd_config_red Rubbish\n");
}

TEST_F(launcher_comparison, without_a_copy_the_server_file_itself_is_compared) {
    unlink((translated("sshd_config_red") + "~source").c_str());
    EXPECT_EQ(differences(), "");
    scratch_.write("sshd_config_red", "HostKey " + key_ + "\nPort 23\n");
    EXPECT_EQ(differences(), "sshd_config_red listenaddress, port\n");
}

TEST_F(launcher_comparison, servers_that_have_ended_or_have_their_last_good_file_are_left_out) {
    const pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    waitpid(gone, nullptr, 0);
    start("sshd_config_red", gone);
    scratch_.write("sshd_config_blue", "HostKey " + key_ + "\nMaxStartups nonsense\n");
    start("sshd_config_blue");
    scratch_.write_program("authorized_keys", "exit 0\n");
    EXPECT_EQ(differences(), "");
}

TEST_F(launcher_comparison, nothing_can_be_compared_without_ssh) {
    paths_.ssh = scratch_.write_program("ssh", "exit 1\n");
    std::string lines;
    EXPECT_THAT(compare_running_servers(paths_, lines), testing::HasSubstr("lists no algorithms"));
    std::filesystem::remove_all(paths_.state_directory);
    EXPECT_EQ(compare_running_servers(paths_, lines), "") << "there is no server";
}

TEST_F(launcher_comparison, changed_local_directives_are_named) {
    std::filesystem::create_directory(paths_.local_directory);
    EXPECT_EQ(differences(), "");
    scratch_.write("sshd.d/red.conf", "PermitRootLogin no\n", 0644);
    EXPECT_EQ(differences(), "sshd_config_red permitrootlogin\n");
    start("sshd_config_red");
    EXPECT_EQ(differences(), "");
}

// The server need not be restarted for them, so nothing else would tell.
TEST_F(launcher_comparison, the_record_follows_local_directives_that_become_wrong_and_right_again) {
    std::filesystem::create_directory(paths_.local_directory);
    scratch_.write("sshd.d/red.conf", "PermitRootLogin no\n", 0644);
    start("sshd_config_red");
    const auto recorded = [this] {
        launch_record record;
        EXPECT_TRUE(launch_record_parse(text_of(translated("sshd_config_red") + "~launch"), record));
        return record;
    };
    const std::string stamp = recorded().config_stamp;
    scratch_.write("sshd.d/red.conf", "PermitRootLogin no\nPrt 23\n", 0644);
    EXPECT_EQ(differences(), "");
    EXPECT_EQ(recorded().local, launch_local::last_accepted);
    EXPECT_EQ(recorded().local_problems,
              std::vector<std::string>{paths_.local_directory +
                                       "/red.conf, line 2: \"Prt 23\" refused: unknown keyword; did you mean Port?"});
    EXPECT_EQ(recorded().config_stamp, stamp);
    EXPECT_EQ(recorded().process, getpid());
    scratch_.write("sshd.d/red.conf", "PermitRootLogin no\n", 0644);
    EXPECT_EQ(differences(), "");
    EXPECT_EQ(recorded().local, launch_local::current);
    EXPECT_TRUE(recorded().local_problems.empty());
}
