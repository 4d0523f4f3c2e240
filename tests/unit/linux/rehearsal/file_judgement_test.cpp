#include "linux/rehearsal/file_judgement.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "unit/linux/platform_test_support.h"

namespace {

using platform_test::read_file;
using platform_test::write_file;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char folder[] = "/var/opt/norvo/norvossh/";
constexpr char launcher[] = "/pkg/bin/sshd";

/// A launcher that notes the files it judges and rejects those that contain "bad".
class file_judgement_test : public testing::Test {
  protected:
    file_judgement_test() {
        install(
            "echo \"${3##*/}\" >> /tmp/judged\n"
            "! grep -q bad \"$3\" && exit 0\n"
            "echo \"<4>$3: a warning\" >&2\n"
            "echo \"<3>$3: line 2: bad\" >&2\n"
            "echo \"<3>$3: not usable\" >&2\n"
            "exit 4");
    }

    static void install(const std::string& commands) {
        write_file(launcher, "#!/bin/sh\n" + commands + "\n");
        std::filesystem::permissions(launcher, std::filesystem::perms::owner_all);
    }

    void change(const char* name, std::optional<std::string> before, std::optional<std::string> after) {
        const std::string path = std::string(folder) + name;
        if (after) {
            write_file(path, *after);
        }
        changes.push_back({{path, rehearsed_change::changed}, std::move(before), std::move(after)});
    }

    /// "PATH: WORDS, OTHER PATH", and " (as before)" for a file that was rejected already.
    std::vector<std::string> judge() {
        std::vector<std::string> lines;
        for (const rehearsed_rejection& one : judge_files(changes, folders, problem)) {
            std::string line = one.path.substr(strlen(folder)) + ": " + one.words;
            for (const std::string& other : one.others) {
                line += ", " + other.substr(strlen(folder));
            }
            lines.push_back(line + (one.was_rejected ? " (as before)" : ""));
        }
        return lines;
    }

    static std::string judged() { return std::filesystem::exists("/tmp/judged") ? read_file("/tmp/judged") : ""; }

    std::vector<private_change> changes;
    const private_folders folders{private_folder_rows()};
    std::string problem;
};

TEST_F(file_judgement_test, each_content_is_judged_once_and_the_default_file_not_at_all) {
    change("sshd_config", "a", "b");
    change("sshd_config_blue", "a", "b");
    change("sshd_config_green", "a", "c");
    change("sshd_config_red", "a", "b");
    change("sshd_config_gone", "a", std::nullopt);
    EXPECT_THAT(judge(), IsEmpty());
    EXPECT_EQ(judged(), "sshd_config_blue\nsshd_config_green\n");
    EXPECT_EQ(problem, "");
}

TEST_F(file_judgement_test, without_a_server_the_default_file_is_judged) {
    change("sshd_config", "a", "bad");
    EXPECT_THAT(judge(), ElementsAre("sshd_config: line 2: bad; not usable"));
}

TEST_F(file_judgement_test, a_file_that_was_rejected_before_is_told_apart) {
    change("sshd_config_blue", "bad as well", "bad");
    change("sshd_config_red", "good", "bad too");
    EXPECT_THAT(judge(), ElementsAre("sshd_config_blue: line 2: bad; not usable (as before)",
                                     "sshd_config_red: line 2: bad; not usable"));
}

TEST_F(file_judgement_test, a_file_that_was_accepted_before_is_not_hidden_by_one_that_was_not) {
    change("sshd_config_blue", "bad as well", "bad");
    change("sshd_config_green", "bad as well", "bad");
    change("sshd_config_red", "good", "bad");
    EXPECT_THAT(judge(), ElementsAre("sshd_config_blue: line 2: bad; not usable, sshd_config_green, sshd_config_red"));
    changes.pop_back();
    std::filesystem::remove("/tmp/judged");
    write_file(std::string(folder) + "sshd_config_blue", "bad");
    EXPECT_THAT(judge(), ElementsAre("sshd_config_blue: line 2: bad; not usable, sshd_config_green (as before)"));
    EXPECT_EQ(judged(), "sshd_config_blue\nsshd_config_blue\n") << "each content once";
}

TEST_F(file_judgement_test, files_rejected_with_the_same_words_are_told_together) {
    change("sshd_config_blue", "good", "bad");
    change("sshd_config_green", "good", "good too");
    change("sshd_config_grey", "good", "bad, on another port");
    change("sshd_config_red", "good", "bad");
    EXPECT_THAT(judge(), ElementsAre("sshd_config_blue: line 2: bad; not usable, sshd_config_red, sshd_config_grey"));
}

TEST_F(file_judgement_test, a_launcher_that_fails_is_a_problem_and_no_verdict) {
    change("sshd_config_red", "a", "b");
    install("exit 5");
    EXPECT_THAT(judge(), IsEmpty());
    EXPECT_EQ(problem, "/pkg/bin/sshd ended with wait status 0x500: ");
    std::filesystem::remove(launcher);
    EXPECT_THAT(judge(), IsEmpty());
    EXPECT_EQ(problem, "/pkg/bin/sshd cannot be run: No such file or directory");
}

TEST_F(file_judgement_test, the_clients_file_is_judged_by_ssh) {
    write_file("/pkg/bin/ssh_csm",
               "#!/bin/sh\n[ \"$1 $2\" = '-G localhost' ] || exit 9\n"
               "! grep bad /var/opt/norvo/norvossh/ssh_config || { echo 'line 1: bad' >&2; exit 255; }\n");
    std::filesystem::permissions("/pkg/bin/ssh_csm", std::filesystem::perms::owner_all);
    change("ssh_config", "good", "bad");
    EXPECT_THAT(judge(), ElementsAre("ssh_config: line 1: bad"));
    changes.clear();
    change("ssh_config", "bad", "bad too");
    EXPECT_THAT(judge(), ElementsAre("ssh_config: line 1: bad (as before)"));
    changes.clear();
    change("ssh_config", "bad", "good");
    EXPECT_THAT(judge(), IsEmpty());
    EXPECT_EQ(problem, "");
}

TEST_F(file_judgement_test, without_changed_files_of_servers_and_client_nothing_is_judged) {
    change("banner", "a", "b");
    EXPECT_THAT(judge(), IsEmpty());
    EXPECT_EQ(judged(), "");
}

}  // namespace
