#include "config_files/file_comparison.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "../agent_test.h"
#include "call_faults.h"
#include "config_files/algorithm_names.h"
#include "config_files/default_contents.h"
#include "usage.h"

namespace {

using testing::ElementsAre;

class file_comparison_test : public agent_test {
  protected:
    file_comparison_test() {
        EXPECT_EQ(prepare_default_files(), 0);
        write_initial_lines();
    }

    /// The keywords in which the text differs from the expected content of the server files.
    static std::vector<std::string> differing(const std::string& text) {
        write_file("/tmp/file", text);
        file_values present;
        EXPECT_EQ(read_file_values("/tmp/file", &present), 0);
        return differing_server_keywords(wanted_server_settings(), present.settings);
    }

    static std::string server_text() { return read_file(paths::server_file); }

    static std::string replaced(std::string text, const std::string& from, const std::string& to) {
        const size_t at = text.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return at == std::string::npos ? text : text.replace(at, from.size(), to);
    }
};

TEST_F(file_comparison_test, the_initial_lines_agree_with_the_tables) {
    EXPECT_THAT(differing(server_text()), ElementsAre());
    file_values present;
    EXPECT_EQ(read_file_values(paths::client_file, &present), 0);
    EXPECT_THAT(differing_client_keywords(wanted_client_settings(), present.settings), ElementsAre());
}

TEST_F(file_comparison_test, the_clients_file_is_compared_with_its_own_table) {
    write_file(paths::client_file,
               replaced(read_file(paths::client_file), "ServerAliveInterval 60\n", "") + "Other x\n");
    file_values present;
    EXPECT_EQ(read_file_values(paths::client_file, &present), 0);
    EXPECT_THAT(differing_client_keywords(wanted_client_settings(), present.settings),
                ElementsAre("ServerAliveInterval", "Other"));
}

TEST_F(file_comparison_test, order_and_spaces_do_not_matter) {
    std::string text;
    for (const std::string& line : file_lines(paths::server_file)) {
        text = " " + replaced(line, " ", "  \t") + "  \n" + text;
    }
    EXPECT_THAT(differing("# a comment\n\n" + text), ElementsAre());
}

TEST_F(file_comparison_test, host_keys_may_share_one_line) {
    std::string text;
    for (const std::string& line : file_lines(paths::server_file)) {
        text += line.starts_with("HostKey ") ? "" : line + "\n";
    }
    EXPECT_THAT(differing(text + "HostKey  " + default_host_keys + "\n"), ElementsAre());
    EXPECT_THAT(differing(text + "HostKey  /pkg/rsa,/pkg/dsa\n"), ElementsAre("HostKey"));
}

TEST_F(file_comparison_test, host_keys_are_collected_and_sorted) {
    write_file("/tmp/file", "HostKey /pkg/rsa,/pkg/dsa\nUsePAM yes\nHostKey /pkg/ed25519\nHostKey /pkg/dsa\n");
    file_values present;
    EXPECT_EQ(read_file_values("/tmp/file", &present), 0);
    ASSERT_EQ(present.settings.size(), 2u);
    EXPECT_EQ(present.settings[0].value, "/pkg/dsa,/pkg/ed25519,/pkg/rsa,");
    write_file("/tmp/file", "HostKey /pkg/rsa,/pkg/dsa\n");
    EXPECT_EQ(read_file_values("/tmp/file", &present), 0);
    ASSERT_EQ(present.settings.size(), 1u) << "what was read before is gone";
    EXPECT_EQ(present.settings[0].value, "/pkg/dsa,/pkg/rsa,");
}

TEST_F(file_comparison_test, a_setting_can_have_the_name_of_a_keyword_as_its_value) {
    write_file("/tmp/file", "Banner HostKey\n");
    file_values present;
    EXPECT_EQ(read_file_values("/tmp/file", &present), 0);
    ASSERT_EQ(present.settings.size(), 1u);
    EXPECT_EQ(present.settings[0].value, "HostKey");
}

TEST_F(file_comparison_test, a_missing_list_counts_as_its_default) {
    const std::string text = replaced(server_text(), std::string("Ciphers ") + default_cipher_list + "\n", "");
    EXPECT_THAT(differing(text), ElementsAre());
    server_config.algorithms[SERVER_CIPHERS].second_current = "aes128-ctr,";
    EXPECT_THAT(differing(text), ElementsAre("Ciphers"));
    EXPECT_THAT(differing(text + "Ciphers aes128-ctr\n"), ElementsAre());
    server_config.algorithms[SERVER_CIPHERS].current = "aes128-ctr,";
    EXPECT_THAT(differing(text), ElementsAre("Ciphers"));
}

TEST_F(file_comparison_test, the_order_of_algorithms_matters) {
    server_config.algorithms[SERVER_KEX_ALGORITHMS].second_current = "a,b";
    const std::string text =
        replaced(server_text(), std::string("KexAlgorithms ") + default_kex_list, "KexAlgorithms b,a");
    EXPECT_THAT(differing(text), ElementsAre("KexAlgorithms"));
}

TEST_F(file_comparison_test, settings_without_an_initial_line_have_their_defaults) {
    EXPECT_THAT(differing(server_text() + "RateLimitQd 60\nSessionLimitQd 64\n"), ElementsAre());
    EXPECT_THAT(differing(server_text() + "RateLimitQd 61\n"), ElementsAre("RateLimitQd"));
    server_config.parameters[SERVER_CERTIFICATE_USERNAME].current = "1";
    EXPECT_THAT(differing(server_text()), ElementsAre());
    server_config.parameters[SERVER_CERTIFICATE_USERNAME].current = "2";
    EXPECT_THAT(differing(server_text()), ElementsAre("CertUsernameQd"));
}

TEST_F(file_comparison_test, a_missing_initial_line_is_a_difference) {
    // A file truncated by a full disk ends anywhere.
    const std::string text = server_text();
    for (size_t size = 0; size < text.size() - 1; size++) {
        EXPECT_FALSE(differing(text.substr(0, size)).empty()) << text.substr(0, size);
    }
}

TEST_F(file_comparison_test, a_banner_line_is_expected_or_not) {
    const std::string with_banner = server_text() + "Banner " + paths::banner_file + "\n";
    EXPECT_THAT(differing(with_banner), ElementsAre("Banner"));
    server_config.parameters[SERVER_BANNER].current = paths::banner_file;
    EXPECT_THAT(differing(with_banner), ElementsAre());
    EXPECT_THAT(differing(server_text()), ElementsAre("Banner"));
}

TEST_F(file_comparison_test, an_unrequested_log_level_is_a_difference) {
    EXPECT_THAT(differing(server_text() + "LogLevel DEBUG3\n"), ElementsAre("LogLevel"));
}

TEST_F(file_comparison_test, the_window_scale_is_not_compared) {
    EXPECT_THAT(differing(server_text() + "WindowScaleQd 7\n"), ElementsAre());
    server_config.parameters[SERVER_WINDOW_SCALE].current = "3";
    EXPECT_THAT(differing(server_text()), ElementsAre());
}

TEST_F(file_comparison_test, an_unknown_keyword_is_a_difference) {
    EXPECT_THAT(differing(server_text() + "PasswordAuthentication no\n"), ElementsAre("PasswordAuthentication"));
}

TEST_F(file_comparison_test, only_the_first_line_of_a_keyword_counts) {
    EXPECT_THAT(differing(server_text() + "MaxSessions 1\n"), ElementsAre());
    EXPECT_THAT(differing("MaxSessions 1\n" + server_text()), ElementsAre("MaxSessions"));
}

TEST_F(file_comparison_test, the_vrfs_own_lines_are_compared_separately) {
    write_file("/tmp/file", "Port  830\nUsePAM yes\nSubsystem netconf /pkg/bin/proxy\nPort 22\n");
    file_values present;
    EXPECT_EQ(read_file_values("/tmp/file", &present), 0);
    EXPECT_THAT(present.own_lines, ElementsAre("Port 22", "Port 830", "Subsystem netconf /pkg/bin/proxy"));
    ASSERT_EQ(present.settings.size(), 1u);
    EXPECT_EQ(present.settings[0].keyword, "UsePAM");
}

TEST_F(file_comparison_test, a_missing_file_is_an_error) {
    file_values present;
    EXPECT_EQ(read_file_values("/tmp/none", &present), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(file_comparison_test, a_file_that_cannot_be_read_is_an_error) {
    call_faults::fail_call("stdio_read", EIO, call_faults::once);
    file_values present;
    EXPECT_EQ(read_file_values(paths::server_file, &present), -1);
    EXPECT_EQ(errno, EIO);
}

TEST_F(file_comparison_test, a_file_of_any_size_is_read_completely_and_closed) {
    const size_t descriptors = open_descriptors();
    for (size_t size = 4090; size <= 4100; size++) {
        write_file("/tmp/file", std::string(size - 7, '#') + "\nPort 22");
        file_values present;
        EXPECT_EQ(read_file_values("/tmp/file", &present), 0);
        EXPECT_THAT(present.own_lines, ElementsAre("Port 22")) << size;
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(file_comparison_test, all_ports_are_removed_and_only_ports) {
    constexpr char subsystem[] = "Subsystem netconf /pkg/bin/proxy\n";
    write_file(paths::server_file, std::string("Port 22\nUsePAM yes\n") + subsystem + "Port 830\n");
    EXPECT_EQ(write_server_line_again("Port"), 0);
    EXPECT_EQ(server_text(), std::string("UsePAM yes\n") + subsystem);
    write_file(paths::server_file, "Port 22\nPort 830\n");
    call_faults::fail_call("rename", EIO, call_faults::once);
    EXPECT_EQ(write_server_line_again("Port"), -1);
    EXPECT_EQ(server_text(), "Port 22\nPort 830\n");
    call_faults::clear();
    std::filesystem::remove(paths::temporary_file);
    std::filesystem::create_directory(paths::temporary_file);
    EXPECT_EQ(write_server_line_again("Port"), -1);
    EXPECT_EQ(errno, EISDIR);
    std::filesystem::remove(paths::server_file);
    EXPECT_EQ(write_server_line_again("Port"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(file_comparison_test, a_line_is_rewritten_as_the_appliers_write_it) {
    const std::string before = server_text();
    struct {
        const char* keyword;
        const char* from;
        const char* to;
    } constexpr damages[] = {
        {"MaxSessions", "MaxSessions 16\n", "MaxSessions 1\n"},
        {"IPQoS", "IPQoS 0x40\n", "IPQoS 0x10\n"},
        {"HostKey", "HostKey  /pkg/rsa\n", "HostKey  /pkg/rsb\n"},
        {"Ciphers", "Ciphers aes128-ctr,", "Ciphers "},
    };
    for (const auto& damage : damages) {
        write_file(paths::server_file, replaced(before, damage.from, damage.to));
        EXPECT_THAT(differing(server_text()), ElementsAre(damage.keyword));
        EXPECT_EQ(write_server_line_again(damage.keyword), 0);
        EXPECT_THAT(differing(server_text()), ElementsAre()) << damage.keyword;
        auto lines = file_lines(paths::server_file);
        auto wanted = lines;
        write_file("/tmp/wanted", before);
        wanted = file_lines("/tmp/wanted");
        EXPECT_THAT(lines, testing::UnorderedElementsAreArray(wanted)) << damage.keyword;
    }
}

TEST_F(file_comparison_test, an_unexpected_line_is_removed) {
    const std::string before = server_text();
    write_file(paths::server_file, before + "LogLevel DEBUG3\nPasswordAuthentication no\n");
    EXPECT_EQ(write_server_line_again("LogLevel"), 0);
    EXPECT_EQ(write_server_line_again("PasswordAuthentication"), 0);
    EXPECT_EQ(server_text(), before);
}

}  // namespace
