#include "openssh/client_launch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "openssh/keyword_table.h"
#include "openssh/text.h"
#include "openssh/translate.h"
#include "openssh/verbose_places.h"
#include "scratch.h"

using namespace openssh;
using openssh_test::default_list;
using openssh_test::scratch_directory;
using openssh_test::text_of;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

/// The agent's file after a fresh start, with the lists that an operator has configured.
constexpr const char* agent_file =
    "RekeyLimit 1024M 60m\n"
    "UserKnownHostsFile /dev/null\n"
    "StrictHostKeyChecking no\n"
    "HostKeyAlgorithms ssh-ed25519,x509v3-ssh-rsa,rsa-sha2-512\n"
    "MACs hmac-sha2-512,hmac-sha2-256,hmac-sha1\n"
    "ServerAliveInterval 60\n"
    "PubkeyAuthentication no\n"
    "IPQoS 0x40\n"
    "Protocol 2\n"
    "WindowScaleQd 7\n"
    "Ciphers chacha20-poly1305@openssh.com,aes256-ctr,\n"
    "KexAlgorithms curve25519-sha256,ecdh-sha2-nistp256,\n";

/// The router's default lists; the installed ssh knows all of them.
const std::string default_lists = "Ciphers " + default_list(algorithm_kind::cipher) + "\nMACs " +
                                  default_list(algorithm_kind::mac) + "\nKexAlgorithms " +
                                  default_list(algorithm_kind::kex) + "\nHostKeyAlgorithms " +
                                  default_list(algorithm_kind::key) + "\n";

/// A launcher with every path in a scratch directory and the installed ssh.
class launcher_client : public testing::Test {
  protected:
    void SetUp() override {
        paths_.state_directory = scratch_.file("state");
        paths_.client_file = scratch_.write("ssh_config", agent_file);
        paths_.default_server_file = scratch_.file("sshd_config");
        paths_.session_reporter = scratch_.file("reporter.so");
    }

    /// Returns the error; `settings_` is then the translation without its first two lines.
    std::string prepare() {
        FILE* terminal = fopen(scratch_.write("terminal", "").c_str(), "w");
        FILE* log = fopen(scratch_.write("log", "").c_str(), "w");
        const client_reporters to = {
            .terminal = {.server_file = paths_.client_file, .fd = fileno(terminal), .program = "ssh_csm"},
            .log = {.server_file = paths_.client_file, .fd = fileno(log), .program = "ssh_csm"}};
        std::string config;
        const std::string error = prepare_client(paths_, scratch_.file("state"), to, config);
        fclose(terminal);
        fclose(log);
        terminal_ = text_of(scratch_.file("terminal"));
        log_ = text_of(scratch_.file("log"));
        settings_ = error.empty() ? text_of(config) : "";
        for (int line = 0; line < 2 && !settings_.empty(); line++) {
            settings_.erase(0, settings_.find('\n') + 1);
        }
        return error;
    }

    /// The effective configuration that stock ssh reads from the translation.
    std::string effective() const {
        const auto result = run_programs({{"/usr/bin/ssh", "-F", scratch_.file("state/ssh_config"), "-G", "router"}},
                                         std::chrono::seconds(20));
        EXPECT_EQ(result[0].status, 0) << result[0].errors;
        return result[0].output;
    }

    scratch_directory scratch_;
    launcher_paths paths_;
    std::string settings_;
    std::string terminal_;
    std::string log_;
};

TEST_F(launcher_client, omits_what_stock_ssh_does_not_support) {
    EXPECT_EQ(prepare(), "");
    EXPECT_EQ(settings_,
              "RekeyLimit 1024M 60m\n"
              "UserKnownHostsFile /dev/null\n"
              "StrictHostKeyChecking no\n"
              "HostKeyAlgorithms ssh-ed25519,rsa-sha2-512\n"
              "MACs hmac-sha2-512,hmac-sha2-256,hmac-sha1\n"
              "ServerAliveInterval 60\n"
              "PubkeyAuthentication no\n"
              "IPQoS 0x40\n"
              "Ciphers chacha20-poly1305@openssh.com,aes256-ctr\n"
              "KexAlgorithms curve25519-sha256,ecdh-sha2-nistp256\n");
    for (const char* text : {"line 4: HostKeyAlgorithms: ignored, not supported by this OpenSSH: x509v3-ssh-rsa",
                             "line 9: Protocol ignored", "line 10: WindowScaleQd ignored"}) {
        EXPECT_THAT(log_, HasSubstr("ssh_csm: " + paths_.client_file + ": " + text));
    }
    EXPECT_EQ(terminal_, "");
    EXPECT_THAT(effective(), HasSubstr("ciphers chacha20-poly1305@openssh.com,aes256-ctr\n"));
    EXPECT_THAT(effective(), HasSubstr("kexalgorithms curve25519-sha256,ecdh-sha2-nistp256\n"));
}

TEST_F(launcher_client, in_fips_mode_offers_only_approved_algorithms) {
    scratch_.write("sshd_config", "NorvoSSHFipsMode yes\n");
    EXPECT_EQ(prepare(), "");
    EXPECT_THAT(settings_, HasSubstr("Ciphers aes256-ctr\n"));
    EXPECT_THAT(settings_, HasSubstr("KexAlgorithms ecdh-sha2-nistp256\n"));
    EXPECT_THAT(settings_, HasSubstr("HostKeyAlgorithms rsa-sha2-512\n"));
    EXPECT_THAT(log_, HasSubstr("Ciphers: ignored, not approved in FIPS mode: chacha20-poly1305@openssh.com"));
    // A normal start writes no such lines, and ssh's own defaults would not be approved.
    scratch_.write("ssh_config", "IPQoS 0x40\n");
    EXPECT_EQ(prepare(), "");
    EXPECT_THAT(settings_, HasSubstr("\nCiphers aes"));
    EXPECT_THAT(effective(), Not(HasSubstr("chacha20")));
    EXPECT_THAT(effective(), HasSubstr("\nkexalgorithms ecdh-sha2-nistp521,ecdh-sha2-nistp384,ecdh-sha2-nistp256,"
                                       "diffie-hellman-group14-sha1,diffie-hellman-group14-sha256,"
                                       "diffie-hellman-group16-sha512\n"));
}

TEST_F(launcher_client, in_fips_mode_arguments_add_no_other_algorithm) {
    const auto check = [this](std::vector<std::string> words) {
        words.insert(words.begin(), "ssh_csm");
        std::vector<char*> arguments(words.size());
        std::transform(words.begin(), words.end(), arguments.begin(), [](std::string& word) { return word.data(); });
        return check_fips_arguments(paths_, scratch_.file("state/ssh_config"), static_cast<int>(words.size()),
                                    arguments.data());
    };
    scratch_.write("ssh_config", "IPQoS 0x40\n");
    EXPECT_EQ(prepare(), "");
    EXPECT_EQ(check({"-c", "chacha20-poly1305@openssh.com", "router"}), "") << "without FIPS mode anything is allowed";
    scratch_.write("sshd_config", "NorvoSSHFipsMode yes\n");
    EXPECT_EQ(prepare(), "");
    const std::string cipher = "Ciphers: not approved in FIPS mode: chacha20-poly1305@openssh.com";
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"-c", "chacha20-poly1305@openssh.com", "router"},
             {"-vcchacha20-poly1305@openssh.com", "router"},
             {"-o", "Ciphers=chacha20-poly1305@openssh.com", "router"},
             {"-oCiphers chacha20-poly1305@openssh.com", "router", "true"},
             {"-o", "ciphers=+chacha20-poly1305@openssh.com", "router"},
             {"-o", "Ciphers=^chacha20-poly1305@openssh.com", "router"},
             {"router", "-c", "aes256-ctr,chacha20-poly1305@openssh.com", "true"},
             {"-F", scratch_.write("own", "Ciphers chacha20-poly1305@openssh.com\n"), "router"}}) {
        EXPECT_EQ(check(words), cipher) << words[0] << ' ' << words[1];
    }
    EXPECT_EQ(check({"-o", "KexAlgorithms=curve25519-sha256", "router"}),
              "KexAlgorithms: not approved in FIPS mode: curve25519-sha256");
    EXPECT_EQ(check({"-m", "umac-64@openssh.com", "router"}), "MACs: not approved in FIPS mode: umac-64@openssh.com");
    // Signs and carets change ssh's own list, not the client file's.
    EXPECT_THAT(check({"-o", "HostKeyAlgorithms=+ssh-ed25519", "router"}),
                testing::StartsWith("HostKeyAlgorithms: not approved in FIPS mode: "));
    EXPECT_EQ(check({"-oCiphers=-aes128-ctr", "router"}), cipher);
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"router"},
             {"-c", "aes256-ctr", "router", "echo", "-c", "chacha20-poly1305@openssh.com"},
             {"-oCiphers=aes256-ctr,aes128-ctr", "-p", "830", "router"},
             {"-V"},
             {"-Q", "cipher"},
             {}}) {
        EXPECT_EQ(check(words), "");
    }
}

TEST_F(launcher_client, in_fips_mode_a_list_without_approved_algorithms_is_refused) {
    scratch_.write("sshd_config", "NorvoSSHFipsMode yes\n");
    scratch_.write("ssh_config", "Ciphers chacha20-poly1305@openssh.com\n");
    EXPECT_EQ(prepare(), "the client's file is unusable");
    EXPECT_THAT(terminal_, HasSubstr("the list is empty in FIPS mode"));
}

TEST_F(launcher_client, a_list_without_known_algorithms_is_reported_at_the_terminal) {
    scratch_.write("ssh_config", "Ciphers rot13\nStrictHostKeyChecking perhaps\n");
    EXPECT_EQ(prepare(), "");
    EXPECT_THAT(terminal_, HasSubstr("line 1: Ciphers: the list is empty; the router's default is in force"));
    EXPECT_THAT(log_, HasSubstr("ssh does not accept the value \"perhaps\""));
    EXPECT_EQ(settings_, default_lists);
}

TEST_F(launcher_client, a_missing_file_is_reported) {
    remove(paths_.client_file.c_str());
    EXPECT_THAT(prepare(), HasSubstr(paths_.client_file));
}

TEST_F(launcher_client, a_directory_that_others_can_write_to_is_not_used) {
    mkdir(scratch_.file("state").c_str(), 0700);
    chmod(scratch_.file("state").c_str(), 0777);
    EXPECT_THAT(prepare(), HasSubstr(scratch_.file("state")));
}

TEST_F(launcher_client, an_ssh_that_cannot_be_queried_is_reported) {
    paths_.ssh = scratch_.file("no_ssh");
    EXPECT_THAT(prepare(), HasSubstr("no_ssh"));
}

/// The folders of the machine that may contain a user's translation, all of which belong to this process's user.
class launcher_client_folder : public launcher_client {
  protected:
    void SetUp() override {
        paths_.user_runtime_directories = scratch_.file("users/");
        paths_.temporary_directory = scratch_.file("tmp");
        for (const char* name : {"runtime", "users", "users/4711", "home", "tmp"}) {
            mkdir(scratch_.file(name).c_str(), 0700);
        }
        chmod(scratch_.file("tmp").c_str(), 01777);
    }

    std::string folder(unsigned user = 4711) {
        // Root has a folder of its own, so the folders belong to somebody else.
        for (const char* name : {"runtime", "users/4711", "home"}) {
            EXPECT_EQ(0, chown(scratch_.file(name).c_str(), user_of_folders_, user_of_folders_));
        }
        return client_state_directory(paths_, {user, scratch_.file("runtime"), scratch_.file("home")});
    }

    unsigned user_of_folders_ = 4711;
};

TEST_F(launcher_client_folder, is_roots_own) {
    EXPECT_EQ(client_state_directory(launcher_paths(), {0, "/run/user/0", "/root"}), "/run/ssh_cfg_agent/openssh");
}

TEST_F(launcher_client_folder, is_where_only_the_user_can_make_it) {
    if (getuid() != 0 || chown(scratch_.file("home").c_str(), 4711, 4711) != 0) {
        GTEST_SKIP() << "there is no other user in this user namespace; root's run has them";
    }
    EXPECT_EQ(folder(), scratch_.file("runtime/ssh_csm"));
    chmod(scratch_.file("runtime").c_str(), 0777);
    EXPECT_EQ(folder(), scratch_.file("users/4711/ssh_csm"));
    chmod(scratch_.file("users/4711").c_str(), 0770);
    EXPECT_EQ(folder(), scratch_.file("home/.cache/ssh_csm"));
    EXPECT_EQ(client_state_directory(paths_, {4711, "relative", scratch_.file("home")}),
              scratch_.file("home/.cache/ssh_csm"));
}

TEST_F(launcher_client_folder, is_a_new_one_if_the_user_has_no_place) {
    if (getuid() != 0 || chown(scratch_.file("home").c_str(), 4711, 4711) != 0) {
        GTEST_SKIP() << "there is no other user in this user namespace; root's run has them";
    }
    user_of_folders_ = 4712;
    const std::string first = folder();
    EXPECT_THAT(first, testing::StartsWith(scratch_.file("tmp/ssh_csm-")));
    struct stat status;
    ASSERT_EQ(0, stat(first.c_str(), &status));
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    EXPECT_NE(folder(), first);
    paths_.temporary_directory = scratch_.file("nowhere");
    EXPECT_EQ(folder(), "");
}

TEST_F(launcher_client, keeps_its_name_and_passes_every_argument_on) {
    std::string words[] = {"ssh_csm", "-p", "830", "operator@router", "", "echo a b"};
    char* arguments[std::size(words)];
    std::transform(std::begin(words), std::end(words), arguments, [](std::string& word) { return word.data(); });
    EXPECT_THAT(client_command(launcher_paths(), "/x/ssh_config", std::size(words), arguments),
                ElementsAre("/pkg/bin/ssh_csm", "-F", "/x/ssh_config", "-p", "830", "operator@router", "", "echo a b"));
    EXPECT_THAT(client_command(launcher_paths(), "/x/ssh_config", 1, arguments),
                ElementsAre("/pkg/bin/ssh_csm", "-F", "/x/ssh_config"));
}

// Because of a keyword that it does not know, ssh refuses the whole file.
TEST_F(launcher_client, stock_ssh_knows_every_keyword_that_is_passed_on) {
    for (const keyword_row& row : client_keyword_rows()) {
        if (row.how != treatment::pass && row.how != treatment::list) {
            continue;
        }
        const std::string file =
            scratch_.write("one_keyword", std::string(row.output_keyword()) + " no-such-value-at-all\n");
        const auto result =
            run_programs({{"/usr/bin/ssh", "-F", file, "-G", "router"}}, std::chrono::seconds(20)).front();
        EXPECT_THAT(result.errors, Not(HasSubstr("Bad configuration option"))) << row.keyword;
    }
}

TEST_F(launcher_client, stock_ssh_accepts_every_value_that_a_form_accepts) {
    const struct {
        const char* keyword;
        value_form form;
        std::vector<std::string> good;
        std::vector<std::string> bad;
    } rows[] = {
        {"StrictHostKeyChecking",
         is_host_key_checking,
         {"yes", "no", "ask", "off", "accept-new", "ASK"},
         {"", "perhaps", "yes no", "accept new"}},
        {"PubkeyAuthentication",
         is_public_key_authentication,
         {"yes", "no", "unbound", "host-bound"},
         {"", "ask", "yes no"}},
        {"ServerAliveInterval", is_time, {"60", "0", "1m"}, {"", "-1", "x"}},
    };
    for (const auto& row : rows) {
        for (const std::string& value : row.good) {
            EXPECT_TRUE(row.form(value)) << row.keyword << " " << value;
            const std::string file = scratch_.write("one_keyword", std::string(row.keyword) + " " + value + "\n");
            const auto result =
                run_programs({{"/usr/bin/ssh", "-F", file, "-G", "router"}}, std::chrono::seconds(20)).front();
            EXPECT_EQ(result.status, 0) << result.errors;
        }
        for (const std::string& value : row.bad) {
            EXPECT_FALSE(row.form(value)) << row.keyword << " " << value;
        }
    }
}

TEST_F(launcher_client, lines_after_a_block_are_omitted) {
    scratch_.write("ssh_config", "IPQoS 0x40\nHost a\nUser b\n");
    EXPECT_EQ(prepare(), "");
    EXPECT_EQ(settings_, "IPQoS 0x40\n" + default_lists);
    EXPECT_THAT(log_, HasSubstr("line 2: Host ignored"));
}

}  // namespace

TEST_F(launcher_client, requests_session_logs_only_where_the_responder_listens) {
    ASSERT_EQ(prepare(), "");
    EXPECT_THAT(settings_, Not(HasSubstr("LogVerbose")));
    scratch_.write("reporter.so", "", 0644);
    ASSERT_EQ(prepare(), "");
    EXPECT_THAT(settings_, HasSubstr(std::string("LogVerbose ") + client_verbose_places + "\n"));
}
