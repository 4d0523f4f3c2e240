#include "openssh/translate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "common/text.h"
#include "golden.h"
#include "openssh/text.h"
#include "scratch.h"

using namespace openssh;
using openssh_test::default_list;
using openssh_test::fixed_algorithms;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

bool is_made_key(const std::string& file) {
    return file.starts_with("/pkg/") && file != "/pkg/dsa";
}

translation translate_text(std::string_view text) {
    static const known_algorithms known = fixed_algorithms();
    return translate(
        {.text = text, .source_name = "/files/sshd_config_red", .known = &known, .key_is_usable = is_made_key});
}

// The server parameters while nothing is configured, except for the certificate, which OpenSSH does not know.
const std::string default_lists[] = {
    "Ciphers " + default_list(algorithm_kind::cipher),
    "MACs " + default_list(algorithm_kind::mac),
    "KexAlgorithms " + default_list(algorithm_kind::kex),
    "HostKeyAlgorithms " + default_list(algorithm_kind::key),
};

/// The settings only, without the header of every translation and the defaults that a test does not set.
std::string settings_of(const translation& result) {
    std::string settings;
    for (const std::string_view line : split(result.text, "\n")) {
        if (line[0] != '#' && line != "PidFile none" && line != "UsePAM yes" && line != "AllowTcpForwarding no" &&
            std::find(std::begin(default_lists), std::end(default_lists), line) == std::end(default_lists)) {
            settings.append(line).append("\n");
        }
    }
    return settings;
}

/// What confines sessions on the port for NETCONF.
const std::string netconf_block =
    "Match LocalPort 830\n"
    "    DisableForwarding yes\n"
    "    PermitTTY no\n"
    "    PermitTunnel no\n"
    "    PermitUserRC no\n";

constexpr const char* quiet_lines = "UsePAM yes\nAllowTcpForwarding no\n";

std::vector<std::string> remarks_of(const translation& result) {
    std::vector<std::string> texts;
    for (const remark& one : result.remarks) {
        texts.push_back(text_format("<%d> %s", static_cast<int>(one.level), one.text.c_str()));
    }
    return texts;
}

std::vector<std::string> remarks_of(const std::string& text) {
    return remarks_of(translate_text(quiet_lines + text));
}

std::string whole_of(const translation& result) {
    std::string text = result.refused ? "refused\n" : "";
    for (const std::string& one : remarks_of(result)) {
        text += one + "\n";
    }
    return text + "----\n" + result.text;
}

class launcher_golden : public testing::TestWithParam<const char*> {};

}  // namespace

TEST_P(launcher_golden, matches_its_file) {
    const std::string stem = std::string("openssh/golden/") + GetParam();
    const std::string input = openssh_test::text_of(std::string(TEST_SOURCE_DIR) + "/" + stem + ".in");
    ASSERT_NE(input, "");
    expect_golden(stem + ".ok", whole_of(translate_text(input)));
}

INSTANTIATE_TEST_SUITE_P(files, launcher_golden,
                         testing::Values("fresh", "recreated", "fips", "fips_partly_written", "fips_refused",
                                         "no_host_key", "every_setting", "edited_by_hand"),
                         [](const auto& info) { return std::string(info.param); });

TEST(launcher_translate, accepts_one_host_key_per_line_or_a_list) {
    EXPECT_EQ(settings_of(translate_text("HostKey  /pkg/a\nHostKey /pkg/b\n")), "HostKey /pkg/a\nHostKey /pkg/b\n");
    EXPECT_EQ(settings_of(translate_text("HostKey  /pkg/a,/pkg/b,,/pkg/a,\n")), "HostKey /pkg/a\nHostKey /pkg/b\n");
}

TEST(launcher_translate, omits_host_keys_that_are_missing_or_repeated_or_not_paths) {
    EXPECT_THAT(remarks_of("HostKey /pkg/rsa,/pkg/dsa,/pkg/rsa,rsa,/pkg/a b\nHostKey\n"),
                ElementsAre("<5> line 3: HostKey /pkg/dsa ignored: no readable key file of that name",
                            "<5> line 3: HostKey /pkg/rsa ignored: an earlier line has set it",
                            "<4> line 3: HostKey ignored: \"rsa\" is not an absolute path",
                            "<4> line 3: HostKey ignored: \"/pkg/a b\" is not an absolute path",
                            "<4> line 4: HostKey ignored: it names no file"));
}

// Without a HostKey line sshd would use keys from its own folder.
TEST(launcher_translate, refuses_a_file_without_a_host_key) {
    for (const char* text : {"", "HostKey /pkg/dsa\n", "Port 22\n"}) {
        const translation result = translate_text(text);
        EXPECT_TRUE(result.refused) << text;
        EXPECT_EQ(remarks_of(result).back(), "<3> no usable host key; the file is not used");
    }
}

TEST(launcher_translate, an_absent_list_is_the_routers_default) {
    const translation result = translate_text("HostKey /pkg/rsa\n");
    for (const std::string& line : default_lists) {
        EXPECT_THAT(result.text, HasSubstr("\n" + line + "\n"));
    }
    EXPECT_THAT(result.text, Not(HasSubstr("PubkeyAcceptedAlgorithms")));
}

TEST(launcher_translate, the_routers_default_is_reduced_to_what_openssh_knows) {
    known_algorithms known = fixed_algorithms();
    known.names[static_cast<size_t>(algorithm_kind::cipher)] = {"3des-cbc", "aes256-ctr", "aes128-ctr"};
    known.names[static_cast<size_t>(algorithm_kind::mac)] = {"umac-64@openssh.com"};
    const translation result =
        translate({.text = "MACs rot13", .source_name = "/f", .known = &known, .key_is_usable = is_made_key});
    EXPECT_THAT(result.text, HasSubstr("\nCiphers aes128-ctr,aes256-ctr\n"));
    EXPECT_THAT(result.text, Not(HasSubstr("MACs")));
    EXPECT_THAT(remarks_of(result),
                testing::Contains("<3> line 1: MACs: the list is empty; sshd's own default is in force"));
}

TEST(launcher_translate, a_list_without_known_names_is_replaced_with_a_warning) {
    const translation result = translate_text("HostKey /pkg/rsa\nCiphers rot13,\n");
    EXPECT_FALSE(result.refused);
    EXPECT_THAT(result.text, HasSubstr("\n" + default_lists[0] + "\n"));
    EXPECT_EQ(remarks_of(result).back(), "<3> line 2: Ciphers: the list is empty; the router's default is in force");
}

TEST(launcher_translate, in_fips_mode_a_list_without_approved_names_is_refused) {
    for (const char* line :
         {"Ciphers chacha20-poly1305@openssh.com,", "KexAlgorithms curve25519-sha256", "MACs hmac-md5",
          "HostKeyAlgorithms ssh-ed25519,ssh-rsa,", "Ciphers", "Ciphers +aes128-ctr", "Ciphers ,"}) {
        const std::string text = text_format("HostKey /pkg/rsa\nNorvoSSHFipsMode yes\n%s\n", line);
        EXPECT_TRUE(translate_text(text).refused) << line;
        EXPECT_THAT(remarks_of(text).back(), HasSubstr("the list is empty in FIPS mode")) << line;
    }
}

TEST(launcher_translate, in_fips_mode_a_missing_list_is_the_approved_one) {
    const translation result = translate_text("HostKey /pkg/rsa\nNorvoSSHFipsMode yes\n");
    EXPECT_FALSE(result.refused);
    EXPECT_THAT(result.text, HasSubstr("\nCiphers aes128-ctr,aes192-ctr,aes256-ctr,aes128-gcm@openssh.com,"
                                       "aes256-gcm@openssh.com\n"));
    EXPECT_THAT(result.text, HasSubstr("\nPubkeyAcceptedAlgorithms ecdsa-sha2-nistp521,"));
    EXPECT_THAT(result.text, Not(HasSubstr("25519")));
}

TEST(launcher_translate, a_second_list_replaces_an_unusable_first_one) {
    const translation result =
        translate_text("HostKey /pkg/rsa\nNorvoSSHFipsMode yes\nMACs hmac-md5\nMACs hmac-sha1\n");
    EXPECT_FALSE(result.refused);
    EXPECT_THAT(result.text, HasSubstr("\nMACs hmac-sha1\n"));
}

TEST(launcher_translate, fips_mode_applies_wherever_its_line_is) {
    EXPECT_TRUE(asks_for_fips_mode("Match User x\n\tnorvosshfipsmode=yes"));
    EXPECT_TRUE(asks_for_fips_mode("NorvoSSHFipsMode"));
    EXPECT_TRUE(asks_for_fips_mode("NorvoSSHFipsMode no\nNorvoSSHFipsMode Yes\n"));
    EXPECT_TRUE(asks_for_fips_mode("NorvoSSHFipsMode maybe\n"));
    EXPECT_TRUE(asks_for_fips_mode("NorvoSSHFipsMode yes" + std::string(1 << 20, ' ')));
    EXPECT_FALSE(asks_for_fips_mode("NorvoSSHFipsMode no\n"));
    EXPECT_FALSE(asks_for_fips_mode("# NorvoSSHFipsMode yes\nBanner NorvoSSHFipsMode yes\n"));
    EXPECT_FALSE(asks_for_fips_mode(""));
}

TEST(launcher_translate, reports_whether_a_translation_was_made_in_fips_mode) {
    EXPECT_TRUE(was_made_in_fips_mode(translate_text("NorvoSSHFipsMode yes\n").text));
    EXPECT_FALSE(was_made_in_fips_mode(translate_text("").text));
    EXPECT_FALSE(was_made_in_fips_mode(""));
    EXPECT_FALSE(was_made_in_fips_mode("# FIPS mode: on"));
    EXPECT_FALSE(was_made_in_fips_mode("\n\n# FIPS mode: on\n"));
}

TEST(launcher_translate, additional_key_algorithms_extend_sshds_own) {
    EXPECT_EQ(settings_of(translate_text("AcceptedAlgorithms x509v3-ssh-rsa,ssh-rsa\n")),
              "PubkeyAcceptedAlgorithms +ssh-rsa\n");
    EXPECT_EQ(settings_of(translate_text("AcceptedAlgorithms x509v3-ssh-rsa\n")), "");
    EXPECT_THAT(remarks_of("HostKey /pkg/rsa\nAcceptedAlgorithms x509v3-ssh-rsa\n"),
                ElementsAre("<5> line 4: AcceptedAlgorithms: ignored, not supported by this OpenSSH: x509v3-ssh-rsa"));
}

TEST(launcher_translate, in_fips_mode_sha1_keys_are_not_added) {
    const translation result =
        translate_text("HostKey /pkg/rsa\nAcceptedAlgorithms ssh-rsa,rsa-sha2-256\nNorvoSSHFipsMode yes\n");
    EXPECT_THAT(result.text, HasSubstr("\nPubkeyAcceptedAlgorithms ecdsa-sha2-nistp521,ecdsa-sha2-nistp384,"
                                       "ecdsa-sha2-nistp256,rsa-sha2-512,rsa-sha2-256\n"));
    EXPECT_THAT(result.text, Not(HasSubstr("ssh-rsa")));
}

TEST(launcher_translate, the_first_of_several_lines_counts) {
    EXPECT_EQ(settings_of(translate_text("maxauthtries 3\nMaxAuthTries 4\nMaxAuthTries bad\n")), "MaxAuthTries 3\n");
    EXPECT_EQ(settings_of(translate_text("MaxAuthTries bad\nMaxAuthTries 4\n")), "MaxAuthTries 4\n");
    EXPECT_EQ(settings_of(translate_text("Port 22\nPort 830\nPort 22\n")), "Port 22\nPort 830\n" + netconf_block);
    EXPECT_EQ(settings_of(translate_text("Subsystem a /b\nSubsystem a /c\nSubsystem d /b\n")),
              "Subsystem a /b\nSubsystem d /b\n");
}

TEST(launcher_translate, limits_are_for_the_launcher_not_for_sshd) {
    const translation result = translate_text(
        "HostKey /pkg/rsa\nUsePAM yes\nAllowTcpForwarding no\nRateLimitQd 5\nSessionLimitQd\t2\nPort 22\nPort 0\n"
        "Port 830\nPort 22\n");
    EXPECT_EQ(result.limits.connections_per_minute, 5U);
    EXPECT_EQ(result.limits.sessions, 2U);
    EXPECT_THAT(result.limits.ports, ElementsAre("22", "830"));
    EXPECT_THAT(result.text, Not(HasSubstr("Limit")));
}

TEST(launcher_translate, a_limit_without_a_usable_line_is_the_routers_default) {
    for (const char* value : {"", "0", "-1", "1001", "many", "5 6", "5x"}) {
        const std::string text = text_format("HostKey /pkg/rsa\nRateLimitQd %s\nSessionLimitQd %s\n", value, value);
        const translation result = translate_text(text);
        EXPECT_FALSE(result.refused);
        EXPECT_EQ(result.limits.connections_per_minute, 60U) << value;
        EXPECT_EQ(result.limits.sessions, 64U) << value;
        EXPECT_THAT(remarks_of(result),
                    testing::Contains(
                        text_format("<4> line 2: RateLimitQd ignored: \"%s\" is not a number from 1 to 1000", value)));
    }
    const translation result =
        translate_text("SessionLimitQd x\nSessionLimitQd 3\nSessionLimitQd 3\nsessionlimitqd 4\n");
    EXPECT_EQ(result.limits.sessions, 3U);
    EXPECT_THAT(remarks_of(result),
                testing::Contains("<5> line 4: SessionLimitQd 4 ignored: an earlier line has set it"));
}

TEST(launcher_translate, an_insecure_default_is_not_left_to_sshd) {
    const translation result = translate_text("HostKey /pkg/rsa\nAllowTcpForwarding 2\nUsePAM perhaps\n");
    EXPECT_THAT(result.text, HasSubstr("\nAllowTcpForwarding no\n"));
    EXPECT_THAT(result.text, HasSubstr("\nUsePAM yes\n"));
    EXPECT_THAT(remarks_of(result),
                ElementsAre("<4> line 2: AllowTcpForwarding ignored: sshd does not accept the value \"2\"",
                            "<4> line 3: UsePAM ignored: sshd does not accept the value \"perhaps\"",
                            "<5> no usable UsePAM line: \"yes\" is in force",
                            "<5> no usable AllowTcpForwarding line: \"no\" is in force"));
}

TEST(launcher_translate, names_the_program_that_prints_the_users_keys) {
    const known_algorithms known = fixed_algorithms();
    translation_input input{.text = "",
                            .source_name = "/f",
                            .known = &known,
                            .key_is_usable = is_made_key,
                            .user_keys_program = "/usr/libexec/keys"};
    EXPECT_THAT(translate(input).text,
                HasSubstr("\nAuthorizedKeysCommand /usr/libexec/keys %u\nAuthorizedKeysCommandUser root\n"));
    input.text = "NorvoSSHFipsMode yes\n";
    EXPECT_THAT(translate(input).text, HasSubstr("\nAuthorizedKeysCommand /usr/libexec/keys --fips %u\n"));
    input.text = "AuthorizedKeysCommand /other\nAuthorizedKeysCommandUser nobody\n";
    EXPECT_THAT(translate(input).text, Not(HasSubstr("/usr/libexec/keys")));
}

// A line inside a block must not become a setting for everyone.
TEST(launcher_translate, omits_a_conditional_block_and_everything_after_it) {
    const translation result = translate_text("Port 22\nMatch User x\n  PermitEmptyPasswords yes\nBanner /b\n");
    EXPECT_EQ(settings_of(result), "Port 22\n");
    EXPECT_THAT(remarks_of(result)[0], HasSubstr("line 2: Match ignored"));
}

TEST(launcher_translate, reads_lines_as_sshd_does) {
    EXPECT_EQ(settings_of(translate_text("  Port\t=\t22  # ssh\r\n\n#Port 23\nBanner /a#b\nPort 830")),
              "Port 22\nBanner /a#b\nPort 830\n" + netconf_block);
    EXPECT_EQ(settings_of(translate_text("VersionAddendum \"a # b\"\n")), "VersionAddendum \"a # b\"\n");
}

TEST(launcher_translate, omits_lines_with_control_characters) {
    using std::string_literals::operator""s;
    EXPECT_EQ(settings_of(translate_text("Banner /a\0b\nBanner /a\x1b[2J\nBanner\r/x\nP\0rt 22\n"s)), "");
    EXPECT_THAT(remarks_of("HostKey /pkg/rsa\nBanner /a\0b\n"s),
                ElementsAre("<4> line 4: Banner ignored: the line contains a control character"));
}

TEST(launcher_translate, omits_lines_that_are_too_long) {
    const std::string giant = "Banner /" + std::string(1 << 20, 'x');
    EXPECT_EQ(settings_of(translate_text(giant + "\nPort 22")), "Port 22\n");
    EXPECT_THAT(remarks_of("HostKey /pkg/rsa\n" + giant),
                ElementsAre("<4> line 4: Banner ignored: the line is longer than 8192 bytes"));
    const translation word = translate_text(std::string(1 << 20, 'k'));
    EXPECT_LT(remarks_of(word)[0].size(), 400U);
}

TEST(launcher_translate, limits_its_remarks) {
    std::string text = quiet_lines;
    for (int i = 0; i < 100000; ++i) {
        text += "x\n";
    }
    const auto remarks = remarks_of(translate_text(text));
    ASSERT_EQ(remarks.size(), most_remarks + 1);
    EXPECT_EQ(remarks[most_remarks - 1], "<3> no usable host key; the file is not used");
    EXPECT_EQ(remarks.back(), "<4> 99801 more remarks are not shown");
    std::string names;
    for (int i = 0; i < 1000; ++i) {
        names += ",x";
    }
    EXPECT_THAT(remarks_of("HostKey /pkg/rsa\nMACs hmac-sha1" + names)[0], HasSubstr("x and 936 more"));
}

// sshd uses the first of several lines, and the reporter inside sshd recognises only its own places.
TEST(launcher_translate, puts_the_reporters_places_before_others) {
    const known_algorithms known = fixed_algorithms();
    const translation result = translate({.text = "LogVerbose kex.c:*\nPort 22\n",
                                          .source_name = "x",
                                          .known = &known,
                                          .key_is_usable = is_made_key,
                                          .verbose_places = "auth.c:*"});
    EXPECT_THAT(result.text, HasSubstr("\nLogVerbose auth.c:*\n"));
    EXPECT_THAT(result.text, Not(HasSubstr("kex.c")));
    EXPECT_THAT(remarks_of(result), testing::Contains(HasSubstr("LogVerbose kex.c:* ignored")));
}

namespace {

std::string random_text(std::mt19937& random) {
    static const std::vector<std::string> pieces = {"HostKey ",
                                                    "/pkg/rsa",
                                                    "\n",
                                                    " ",
                                                    ",",
                                                    "=",
                                                    std::string(1, '\0'),
                                                    "\r",
                                                    "Ciphers ",
                                                    "Port ",
                                                    "22",
                                                    "\xff",
                                                    "\"",
                                                    "#",
                                                    "+",
                                                    "'",
                                                    "\t",
                                                    "MACs ",
                                                    "yes",
                                                    "Match ",
                                                    "UsePAM",
                                                    "\\",
                                                    "\n",
                                                    "-",
                                                    "830",
                                                    "Qd",
                                                    "^",
                                                    "\n",
                                                    "NorvoSSHFipsMode ",
                                                    "no",
                                                    "aes128-ctr"};
    std::string text;
    for (unsigned i = random() % 40; i > 0; --i) {
        text += random() % 4 != 0 ? pieces[random() % pieces.size()] : std::string(1, static_cast<char>(random()));
    }
    return text;
}

bool is_printable(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

}  // namespace

// Any bytes result in complete lines without control characters, and in remarks that are safe for a terminal.
TEST(launcher_translate, accepts_any_bytes) {
    std::mt19937 random(1);
    for (int round = 0; round < 5000; ++round) {
        const std::string text = random_text(random);
        const translation result = translate_text(text);
        const auto remarks = remarks_of(result);
        EXPECT_TRUE(std::all_of(remarks.begin(), remarks.end(), is_printable)) << shown(text);
        EXPECT_EQ(result.text.find_first_of(std::string_view("\0\r\x1b\x7f", 4)), std::string::npos) << shown(text);
        EXPECT_TRUE(result.text.ends_with('\n')) << shown(text);
    }
}

TEST(launcher_translate, confines_the_netconf_port_to_its_subsystem) {
    EXPECT_THAT(translate_text("HostKey /pkg/rsa\nPort 22\nPort 830\nPermitTTY yes\n").text,
                testing::EndsWith(netconf_block));
    EXPECT_THAT(translate_text("HostKey /pkg/rsa\nPort 22\nPort 8300\n").text, Not(HasSubstr("Match")));
    EXPECT_THAT(translate_text("HostKey /pkg/rsa\n").text, Not(HasSubstr("Match")));
}

TEST(launcher_translate, admits_nobody_to_a_netconf_port_that_it_cannot_confine) {
    const known_algorithms known = fixed_algorithms();
    const translation result = translate({.text = "HostKey /pkg/rsa\nPort 830\n",
                                          .source_name = "/files/sshd_config_red",
                                          .known = &known,
                                          .key_is_usable = is_made_key,
                                          .sessions_are_wrapped = false});
    EXPECT_THAT(result.text, testing::EndsWith("    PermitUserRC no\n    ForceCommand /bin/false\n"));
    EXPECT_THAT(
        remarks_of(result),
        testing::Contains(HasSubstr("<3> port 830 takes no sessions: without their wrapper they cannot be confined")));
}
