#include "openssh/launch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "openssh/text.h"
#include "openssh/verbose_places.h"
#include "scratch.h"

using namespace openssh;
using openssh_test::exists;
using openssh_test::scratch_directory;
using openssh_test::text_of;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

/// A launcher whose paths are all in a scratch directory, with the installed ssh and sshd.
class launcher_launch : public testing::Test {
  protected:
    void SetUp() override {
        openssh_test::ensure_sshd_directory();
        key_ = scratch_.make_host_key();
        paths_ = openssh_test::launcher_paths_in(scratch_);
        options_.file = scratch_.file("sshd_config_red");
        write_settings("Port 22\n");
    }

    void write_settings(const std::string& settings) {
        scratch_.write("sshd_config_red", "HostKey  " + key_ + "\nUsePAM yes\nAllowTcpForwarding no\n" + settings);
    }

    launch_status prepare() {
        const std::string said_file = scratch_.write("said", "");
        FILE* said = fopen(said_file.c_str(), "w");
        const reporter to{.server_file = options_.file, .fd = fileno(said)};
        prepared_ = {};
        const launch_status status = prepare_launch(paths_, options_, to, prepared_);
        keep_record(paths_, prepared_.record, to);
        fclose(said);
        said_ = text_of(said_file);
        return status;
    }

    launch_record recorded() const {
        launch_record record;
        EXPECT_TRUE(launch_record_parse(text_of(current() + "~launch"), record));
        return record;
    }

    std::string current() const { return scratch_.file("state/sshd_config_red"); }

    scratch_directory scratch_;
    launcher_paths paths_;
    launch_options options_;
    std::string key_;
    launch prepared_;
    std::string said_;
};

}  // namespace

TEST_F(launcher_launch, prepares_what_sshd_needs_and_a_file_that_it_accepts) {
    EXPECT_EQ(prepare(), launch_ready) << said_;
    EXPECT_EQ(prepared_.config, current());
    EXPECT_THAT(text_of(current()), HasSubstr("\nHostKey " + key_ + "\n"));
    EXPECT_EQ(said_, "");
    EXPECT_TRUE(exists(paths_.privilege_separation_directory));
    struct stat status;
    ASSERT_EQ(stat(paths_.state_directory.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    ASSERT_EQ(stat(current().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(launcher_launch, leaves_only_the_file_its_records_and_the_caches) {
    ASSERT_EQ(prepare(), launch_ready);
    std::vector<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(paths_.state_directory)) {
        left.push_back(entry.path().filename());
    }
    EXPECT_THAT(left,
                testing::UnorderedElementsAre("sshd_config_red", "sshd_config_red~launch", "sshd_config_red~source",
                                              "~algorithms", testing::StartsWith("~accepted.")));
}

/// A launcher with an sshd that counts how often it is asked.
class launcher_test_cache : public launcher_launch {
  protected:
    void SetUp() override {
        launcher_launch::SetUp();
        write_sshd("");
    }

    void write_sshd(const std::string& body) {
        paths_.sshd = scratch_.write_program("sshd", "echo >>" + scratch_.file("tests") + "\n" + body);
    }

    /// How often sshd was asked by a launch.
    size_t tests_of_a_launch() {
        scratch_.write("tests", "");
        EXPECT_EQ(prepare(), launch_ready) << said_;
        return text_of(scratch_.file("tests")).size();
    }
};

TEST_F(launcher_test_cache, the_same_text_is_tested_once_for_all_servers) {
    EXPECT_EQ(tests_of_a_launch(), 1U);
    EXPECT_EQ(tests_of_a_launch(), 0U);
    scratch_.write("sshd_config_blue", text_of(options_.file));
    options_.file = scratch_.file("sshd_config_blue");
    EXPECT_EQ(tests_of_a_launch(), 0U);
    EXPECT_EQ(text_of(scratch_.file("state/sshd_config_blue")).find("#"), 0U) << "the file is there all the same";
}

TEST_F(launcher_test_cache, another_text_program_or_host_key_is_tested) {
    EXPECT_EQ(tests_of_a_launch(), 1U);
    write_settings("Port 23\n");
    EXPECT_EQ(tests_of_a_launch(), 1U);
    write_sshd("# another version\n");
    EXPECT_EQ(tests_of_a_launch(), 1U);
    EXPECT_EQ(tests_of_a_launch(), 0U);
    ASSERT_EQ(chmod(key_.c_str(), 0640), 0);
    EXPECT_EQ(tests_of_a_launch(), 1U);
}

TEST_F(launcher_test_cache, what_sshd_comments_on_or_rejects_is_tested_each_time) {
    write_sshd("echo 'this is deprecated' >&2\n");
    EXPECT_EQ(tests_of_a_launch(), 1U);
    EXPECT_EQ(tests_of_a_launch(), 1U);
    EXPECT_THAT(said_, HasSubstr("this is deprecated"));
    write_sshd("case $3 in *candidate*) exit 255 ;; esac\n");
    EXPECT_EQ(tests_of_a_launch(), 2U) << "the new file and the last good one";
    EXPECT_EQ(tests_of_a_launch(), 2U);
}

TEST_F(launcher_test_cache, servers_that_start_together_wait_for_one_test) {
    ASSERT_EQ(prepare(), launch_ready) << "so that all have the algorithms";
    write_settings("Port 23\n");
    write_sshd("sleep 0.3\n");
    scratch_.write("tests", "");
    std::vector<std::thread> launches;
    for (int server = 0; server < 8; server++) {
        launches.emplace_back([this, server] {
            launch_options options;
            options.file = scratch_.write("sshd_config_" + std::to_string(server), text_of(options_.file));
            launch prepared;
            EXPECT_EQ(prepare_launch(paths_, options, {.server_file = options.file}, prepared), launch_ready);
        });
    }
    for (std::thread& each : launches) {
        each.join();
    }
    EXPECT_EQ(text_of(scratch_.file("tests")).size(), 1U);
}

TEST_F(launcher_test_cache, a_damaged_record_is_as_good_as_none) {
    EXPECT_EQ(tests_of_a_launch(), 1U);
    for (const auto& entry : std::filesystem::directory_iterator(paths_.state_directory)) {
        if (entry.path().filename().string().starts_with("~accepted")) {
            std::ofstream(entry.path(), std::ios::app) << "Port 24\n";
        }
    }
    EXPECT_EQ(tests_of_a_launch(), 1U);
}

TEST_F(launcher_launch, records_which_file_is_in_use_and_why) {
    ASSERT_EQ(prepare(), launch_ready);
    launch_record record = recorded();
    EXPECT_EQ(record.in_use, launch_file::current);
    EXPECT_EQ(record.process, getpid());
    EXPECT_EQ(record.server_file, options_.file);
    EXPECT_EQ(record.config, current());
    EXPECT_EQ(record.reason, "");

    write_settings("MaxStartups nonsense\n");
    ASSERT_EQ(prepare(), launch_ready);
    record = recorded();
    EXPECT_EQ(record.in_use, launch_file::last_good);
    EXPECT_EQ(record.config, current());
    EXPECT_THAT(record.reason, HasSubstr("sshd rejects the file (exit status 255); the rejected file is kept as"));
    EXPECT_THAT(record.reason, HasSubstr("Invalid MaxStartups spec."));

    scratch_.write("sshd_config_red", "HostKey /none\n");
    ASSERT_EQ(prepare(), launch_ready);
    EXPECT_EQ(recorded().reason, "the file is unusable: no usable host key; the file is not used");

    ASSERT_EQ(unlink(current().c_str()), 0);
    ASSERT_EQ(prepare(), launch_no_good_file);
    record = recorded();
    EXPECT_EQ(record.in_use, launch_file::none);
    EXPECT_EQ(record.config, "");
    EXPECT_THAT(record.reason, HasSubstr("the file is not used; no last good file exists; the server is not started"));

    ASSERT_EQ(unlink(options_.file.c_str()), 0);
    ASSERT_EQ(prepare(), launch_file_unreadable);
    EXPECT_THAT(recorded().reason, HasSubstr("the server file cannot be used: cannot open"));
}

TEST_F(launcher_launch, a_record_that_cannot_be_written_is_only_a_warning) {
    std::filesystem::create_directories(current() + "~launch/in_the_way");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_THAT(said_, HasSubstr("what the server was started with is not recorded: "));
}

TEST_F(launcher_launch, reports_each_omission_with_the_name_of_the_file) {
    write_settings("WindowScaleQd 7\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_EQ(said_, "sshd: " + options_.file +
                         ": line 4: WindowScaleQd ignored: stock sshd leaves the TCP window to the kernel\n");
}

TEST_F(launcher_launch, uses_the_current_limits_even_with_the_last_good_file) {
    write_settings("Port 22\nPort 830\nRateLimitQd 7\n");
    ASSERT_EQ(prepare(), launch_ready);
    EXPECT_EQ(prepared_.limits.connections_per_minute, 7U);
    EXPECT_EQ(prepared_.limits.sessions, 64U);
    EXPECT_THAT(prepared_.limits.ports, ElementsAre("22", "830"));
    write_settings("Port 22\nSessionLimitQd 3\nMaxStartups nonsense\n");
    ASSERT_EQ(prepare(), launch_ready);
    EXPECT_THAT(said_, HasSubstr("THE SERVER RUNS WITH THE LAST GOOD FILE"));
    EXPECT_EQ(prepared_.limits.sessions, 3U);
    EXPECT_EQ(prepared_.limits.connections_per_minute, 60U);
    EXPECT_THAT(prepared_.limits.ports, ElementsAre("22"));
}

TEST_F(launcher_launch, runs_with_the_last_good_file_when_sshd_refuses_the_new_one) {
    ASSERT_EQ(prepare(), launch_ready);
    const std::string good = text_of(current());
    write_settings("Port 22\nMaxStartups nonsense\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_EQ(text_of(current()), good);
    EXPECT_THAT(said_, HasSubstr("sshd says: "));
    EXPECT_THAT(said_, HasSubstr("Invalid MaxStartups spec."));
    EXPECT_THAT(said_, HasSubstr("THE SERVER RUNS WITH THE LAST GOOD FILE"));
    EXPECT_THAT(text_of(current() + "~refused"), HasSubstr("MaxStartups nonsense"));
}

TEST_F(launcher_launch, recovers_once_the_settings_are_good_again) {
    ASSERT_EQ(prepare(), launch_ready);
    write_settings("MaxStartups nonsense\n");
    ASSERT_EQ(prepare(), launch_ready);
    write_settings("Port 2222\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_EQ(said_, "");
    EXPECT_THAT(text_of(current()), HasSubstr("\nPort 2222\n"));
}

TEST_F(launcher_launch, does_not_start_without_a_last_good_file) {
    write_settings("MaxStartups nonsense\n");
    EXPECT_EQ(prepare(), launch_no_good_file);
    EXPECT_THAT(said_, HasSubstr("no last good file exists; the server is not started"));
    EXPECT_FALSE(exists(current()));
}

TEST_F(launcher_launch, does_not_start_with_a_last_good_file_that_is_no_longer_good) {
    ASSERT_EQ(prepare(), launch_ready);
    ASSERT_EQ(unlink(key_.c_str()), 0);
    EXPECT_EQ(prepare(), launch_no_good_file);
    EXPECT_THAT(said_, HasSubstr("no usable host key; the file is not used"));
    EXPECT_THAT(said_, HasSubstr("the last good file is no longer valid"));
}

TEST_F(launcher_launch, a_refused_fips_file_is_not_replaced_by_one_from_outside_fips_mode) {
    ASSERT_EQ(prepare(), launch_ready);
    write_settings("NorvoSSHFipsMode yes\nCiphers chacha20-poly1305@openssh.com,\n");
    EXPECT_EQ(prepare(), launch_no_good_file);
    EXPECT_THAT(said_, HasSubstr("the last good file was made outside FIPS mode"));

    write_settings("NorvoSSHFipsMode yes\nCiphers aes256-ctr,\n");
    ASSERT_EQ(prepare(), launch_ready) << said_;
    write_settings("NorvoSSHFipsMode yes\nCiphers chacha20-poly1305@openssh.com,\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_THAT(text_of(current()), HasSubstr("\nCiphers aes256-ctr\n"));
}

TEST_F(launcher_launch, reports_that_the_server_file_cannot_be_read) {
    options_.file = scratch_.file("none");
    EXPECT_EQ(prepare(), launch_file_unreadable);
    EXPECT_THAT(said_, HasSubstr("the server file cannot be used: cannot open"));
}

TEST_F(launcher_launch, reports_that_its_directory_cannot_be_created) {
    scratch_.write("state", "");
    EXPECT_EQ(prepare(), launch_no_state);
    EXPECT_THAT(said_, HasSubstr("the server cannot be started: "));
}

TEST_F(launcher_launch, a_failing_ssh_blocks_the_new_settings_but_not_the_server) {
    ASSERT_EQ(prepare(), launch_ready);
    paths_.ssh = scratch_.write_program("ssh", "exit 1\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_THAT(said_, HasSubstr("lists no algorithms"));
    EXPECT_THAT(said_, HasSubstr("THE SERVER RUNS WITH THE LAST GOOD FILE"));
}

TEST_F(launcher_launch, messages_of_sshd_about_a_good_file_are_reported) {
    paths_.sshd = scratch_.write_program("sshd", "echo 'key is short' >&2\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_EQ(said_, "sshd: " + options_.file + ": sshd says: key is short\n");
}

TEST_F(launcher_launch, reports_that_sshd_is_missing) {
    paths_.sshd = scratch_.file("none");
    EXPECT_EQ(prepare(), launch_no_good_file);
    EXPECT_THAT(said_, HasSubstr("cannot be started: No such file or directory"));
}

TEST_F(launcher_launch, names_the_key_program_to_sshd_if_it_is_installed) {
    ASSERT_EQ(prepare(), launch_ready);
    EXPECT_THAT(text_of(current()), Not(HasSubstr("AuthorizedKeysCommand")));
    scratch_.write_program("authorized_keys", "exit 0\n");
    ASSERT_EQ(prepare(), launch_ready);
    EXPECT_THAT(text_of(current()), HasSubstr("\nAuthorizedKeysCommand " + paths_.user_keys_program + " %u\n"));
}

TEST_F(launcher_launch, a_trial_leaves_nothing_behind) {
    std::string translated;
    const reporter to{.server_file = options_.file};
    EXPECT_EQ(try_translation(paths_, options_, to, translated), launch_ready);
    EXPECT_THAT(translated, HasSubstr("\nPort 22\n"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(paths_.state_directory), {}), 1);

    write_settings("MaxStartups nonsense\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(try_translation(paths_, options_, to, translated), launch_no_good_file);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("Invalid MaxStartups spec."));
    EXPECT_THAT(translated, HasSubstr("\nMaxStartups nonsense\n"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(paths_.state_directory), {}), 1);
}

// sshd derives its PAM service name from the last component, and executes itself by the full path.
TEST(launcher_server_command, runs_sshd_by_its_absolute_name_in_the_foreground) {
    EXPECT_THAT(server_command(launcher_paths{}, "/run/x"),
                ElementsAre("/pkg/libexec/norvosshd", "-D", "-f", "/run/x"));
}

namespace {

/// An installed wrapper, and the launcher's messages about it.
class launcher_session_hook : public testing::Test {
  protected:
    void SetUp() override {
        paths_.session_hook = scratch_.write("libssh_session.so", "", 0644);
        paths_.session_wrapper = scratch_.write("ssh_exec.sh", "", 0755);
    }

    std::string hook() {
        const std::string said_file = scratch_.write("said", "");
        FILE* said = fopen(said_file.c_str(), "w");
        std::string found = session_hook_of(paths_, {.server_file = "file", .fd = fileno(said)});
        fclose(said);
        said_ = text_of(said_file);
        return found;
    }

    scratch_directory scratch_;
    launcher_paths paths_;
    std::string said_;
};

}  // namespace

TEST_F(launcher_session_hook, is_used_if_it_is_installed) {
    EXPECT_EQ(hook(), paths_.session_hook);
    EXPECT_EQ(said_, "");
}

TEST_F(launcher_session_hook, is_not_used_and_reported_when_a_part_is_missing) {
    for (const std::string* part : {&paths_.session_hook, &paths_.session_wrapper}) {
        SetUp();
        unlink(part->c_str());
        EXPECT_EQ(hook(), "");
        EXPECT_THAT(said_, HasSubstr("sessions run without their wrapper, so a reload will not end them: " + *part));
    }
}

TEST_F(launcher_session_hook, is_not_used_when_others_can_write_to_a_part) {
    for (const std::string* part : {&paths_.session_hook, &paths_.session_wrapper}) {
        SetUp();
        chmod(part->c_str(), 0775);
        EXPECT_EQ(hook(), "") << *part;
        chmod(part->c_str(), 0757);
        EXPECT_EQ(hook(), "") << *part;
    }
}

TEST_F(launcher_session_hook, is_not_used_when_a_part_belongs_to_another_user) {
    if (chown(paths_.session_wrapper.c_str(), 1234, 0) != 0) {
        GTEST_SKIP() << "only root can create files of another user";
    }
    EXPECT_EQ(hook(), "");
}

TEST_F(launcher_launch, says_once_that_the_netconf_proxy_is_missing) {
    paths_.netconf_program = scratch_.file("proxy");
    write_settings("Port 22\nPort 830\n");
    EXPECT_EQ(prepare(), launch_ready) << said_;
    const std::string warning = "port 830 is open, but NETCONF sessions fail: " + paths_.netconf_program;
    EXPECT_THAT(said_, HasSubstr(warning));
    EXPECT_EQ(said_.find(warning), said_.rfind(warning));
    EXPECT_THAT(text_of(current()), HasSubstr("\nMatch LocalPort 830\n"));
    scratch_.write("proxy", "", 0755);
    EXPECT_EQ(prepare(), launch_ready) << said_;
    EXPECT_THAT(said_, Not(HasSubstr("NETCONF sessions fail")));
    unlink(paths_.netconf_program.c_str());
    write_settings("Port 22\n");
    EXPECT_EQ(prepare(), launch_ready) << said_;
    EXPECT_THAT(said_, Not(HasSubstr("NETCONF")));
}

TEST_F(launcher_session_hook, requires_programs_that_can_be_executed) {
    chmod(paths_.session_wrapper.c_str(), 0644);
    EXPECT_EQ(hook(), "");
}

TEST_F(launcher_launch, requests_session_logs_only_where_the_responder_listens) {
    ASSERT_EQ(prepare(), launch_ready) << said_;
    EXPECT_THAT(text_of(current()), Not(HasSubstr("LogVerbose")));
    scratch_.write("reporter.so", "", 0644);
    ASSERT_EQ(prepare(), launch_ready) << said_;
    EXPECT_THAT(text_of(current()), HasSubstr(std::string("\nLogVerbose ") + server_verbose_places + "\n"));
}

/// A launcher with local directives, and the installed sshd.
class launcher_local : public launcher_launch {
  protected:
    void SetUp() override {
        launcher_launch::SetUp();
        std::filesystem::create_directory(paths_.local_directory);
    }

    void write_own(const std::string& text) { scratch_.write("sshd.d/red.conf", text, 0644); }
    void write_all(const std::string& text) { scratch_.write("sshd.d/all.conf", text, 0644); }
};

TEST_F(launcher_local, are_in_force_and_recorded) {
    write_own("PasswordAuthentication no\n");
    write_all("PermitRootLogin no\nMatch User eve\n  PermitTTY no\n");
    EXPECT_EQ(prepare(), launch_ready) << said_;
    EXPECT_THAT(text_of(current()), HasSubstr("\nPasswordAuthentication no\n"));
    EXPECT_THAT(text_of(current()), HasSubstr("\nMatch User eve\n"));
    EXPECT_EQ(recorded().local, launch_local::current);
    EXPECT_THAT(recorded().local_problems, testing::IsEmpty());
    EXPECT_THAT(said_, HasSubstr("4 local directives are in force"));
    const std::string settings = openssh_test::run_sshd("-T", current()).output;
    EXPECT_THAT(settings, HasSubstr("passwordauthentication no\n"));
    EXPECT_THAT(settings, HasSubstr("permitrootlogin no\n"));
}

TEST_F(launcher_local, a_wrong_line_costs_neither_the_server_nor_the_last_accepted_ones) {
    write_own("PasswordAuthentication no\n");
    ASSERT_EQ(prepare(), launch_ready);
    const std::string good = text_of(current());
    write_own("PasswordAuthentication no\nPort 23\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_EQ(text_of(current()), good);
    EXPECT_EQ(recorded().in_use, launch_file::current);
    EXPECT_EQ(recorded().local, launch_local::last_accepted);
    EXPECT_THAT(
        recorded().local_problems,
        ElementsAre(HasSubstr("sshd.d/red.conf, line 2: \"Port 23\" refused: it would overrule what is configured")));
    EXPECT_THAT(said_, HasSubstr("THE SERVER RUNS WITH THE LAST ACCEPTED LOCAL DIRECTIVES"));
    // The agent's settings are followed nevertheless.
    write_settings("Port 2222\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_THAT(text_of(current()), HasSubstr("\nPort 2222\n"));
    EXPECT_THAT(text_of(current()), HasSubstr("\nPasswordAuthentication no\n"));

    write_own("PermitRootLogin no\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_EQ(recorded().local, launch_local::current);
}

TEST_F(launcher_local, without_accepted_ones_the_server_starts_without_any) {
    write_own("Nonsense\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_EQ(recorded().local, launch_local::left_out);
    EXPECT_THAT(text_of(current()), Not(HasSubstr("# local: ")));
    EXPECT_THAT(said_, HasSubstr("THE SERVER RUNS WITHOUT LOCAL DIRECTIVES"));
}

TEST_F(launcher_local, what_sshd_rejects_is_named_by_its_place) {
    write_own("PermitRootLogin no\n# a comment\nAllowUsers alice@10.0.0.1/8\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_EQ(recorded().local, launch_local::left_out);
    EXPECT_THAT(recorded().local_problems, ElementsAre(HasSubstr("sshd.d/red.conf, line 3: refused by sshd: ")));
}

TEST_F(launcher_local, removed_files_are_forgotten) {
    write_own("PermitRootLogin no\n");
    ASSERT_EQ(prepare(), launch_ready);
    std::filesystem::remove(paths_.local_directory + "/red.conf");
    ASSERT_EQ(prepare(), launch_ready);
    EXPECT_EQ(recorded().local, launch_local::none);
    write_own("Nonsense\n");
    ASSERT_EQ(prepare(), launch_ready);
    EXPECT_EQ(recorded().local, launch_local::left_out);
}

TEST_F(launcher_local, a_server_file_that_sshd_rejects_is_not_blamed_on_them) {
    ASSERT_EQ(prepare(), launch_ready);
    write_own("PermitRootLogin no\n");
    write_settings("MaxStartups nonsense\n");
    EXPECT_EQ(prepare(), launch_ready);
    EXPECT_EQ(recorded().in_use, launch_file::last_good);
    EXPECT_EQ(recorded().local, launch_local::none);
    EXPECT_THAT(said_, Not(HasSubstr("LOCAL DIRECTIVES")));
}

TEST_F(launcher_local, a_trial_tells_their_refusal_from_that_of_the_file) {
    const reporter to{.server_file = options_.file, .fd = -1};
    std::string text;
    write_own("PermitRootLogin no\n");
    EXPECT_EQ(try_translation(paths_, options_, to, text), launch_ready);
    EXPECT_THAT(text, HasSubstr("\nPermitRootLogin no\n"));
    write_own("Nonsense\n");
    EXPECT_EQ(try_translation(paths_, options_, to, text), launch_local_refused);
    write_settings("MaxStartups nonsense\n");
    EXPECT_EQ(try_translation(paths_, options_, to, text), launch_no_good_file);
}

TEST_F(launcher_local, a_judgement_has_a_line_for_each_directive) {
    const reporter to{.server_file = options_.file, .fd = -1};
    options_.judged_local = "present";
    write_own("PermitRootLogin no\nMatch all\nForceCommand id\n");
    std::string judgement;
    EXPECT_EQ(judge_local(paths_, options_, to, judgement), launch_ready);
    const std::string path = paths_.local_directory + "/red.conf";
    EXPECT_THAT(judgement, testing::StartsWith("accepted\t-\t" + path + ", line 1\tPermitRootLogin no\t\n" +
                                               "accepted\t-\t" + path + ", line 2\tMatch all\t\n" + "accepted\troot\t" +
                                               path + ", line 3\tForceCommand id\t\n\n# Generated"));
    EXPECT_FALSE(exists(current()));
}
