#include "openssh/local_directives.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/text.h"
#include "golden.h"
#include "openssh/local_keyword_table.h"
#include "openssh/text.h"
#include "openssh/translate.h"
#include "scratch.h"

using namespace openssh;
using openssh_test::fixed_algorithms;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr char own_path[] = "/etc/ssh_cfg_agent/sshd.d/red.conf";
constexpr char all_path[] = "/etc/ssh_cfg_agent/sshd.d/all.conf";

// What the agent's file becomes without local directives.
constexpr char settings[] =
    "PermitRootLogin yes\n"
    "MACs hmac-sha2-512,hmac-sha2-256,hmac-sha1\n"
    "Ciphers aes128-ctr,aes256-ctr,aes128-cbc\n"
    "PubkeyAcceptedAlgorithms +ssh-rsa\n"
    "ClientAliveInterval 60\n";

local_merge merge(const std::string& own, const std::string& all = {}, bool fips_mode = false) {
    static const known_algorithms known = fixed_algorithms();
    std::vector<local_file> files = {{own_path, own}};
    if (!all.empty()) {
        files.push_back({all_path, all});
    }
    return merge_local_directives(
        files,
        {.known = &known,
         .fips_mode = fips_mode,
         .has_address = [](const std::string& address) { return address == "192.0.2.1" || address == "2001:db8::1"; }},
        settings);
}

/// The lines that the directives have added.
std::string added(const local_merge& merged) {
    const std::string text = merged.settings + merged.blocks;
    const auto all_lines = split(text, "\n");
    std::string lines;
    for (const std::string_view line : all_lines) {
        const bool is_new = std::string_view(settings).find(std::string(line) + "\n") == std::string_view::npos;
        if (is_new && local_place_in(line).empty()) {
            lines.append(line).append("\n");
        }
    }
    return lines;
}

std::vector<std::string> remarks_of_directives(const local_merge& merged) {
    constexpr const char* words[] = {"accepted", "overruled", "refused"};
    std::vector<std::string> texts;
    for (const local_verdict& one : merged.verdicts) {
        texts.push_back(text_format("%zu %s", one.line, words[static_cast<size_t>(one.outcome)]) +
                        (one.text.empty() ? "" : ": " + one.text));
    }
    return texts;
}

/// The remark on the only directive.
std::string refusal(const std::string& directive) {
    const local_merge merged = merge(directive + "\n");
    EXPECT_TRUE(merged.is_refused()) << directive;
    return merged.verdicts.back().text;
}

}  // namespace

TEST(local_directives, come_behind_the_settings_with_their_places) {
    const local_merge merged =
        merge("# nothing\n\nPasswordAuthentication no   # keys only\nKbdInteractiveAuthentication=no\n");
    EXPECT_FALSE(merged.is_refused());
    EXPECT_EQ(merged.settings, std::string(settings) +
                                   "# local: /etc/ssh_cfg_agent/sshd.d/red.conf, line 3\n"
                                   "PasswordAuthentication no\n"
                                   "# local: /etc/ssh_cfg_agent/sshd.d/red.conf, line 4\n"
                                   "KbdInteractiveAuthentication no\n");
    EXPECT_EQ(merged.blocks, "");
    EXPECT_EQ(merged.count_in_force(), 2U);
    EXPECT_TRUE(has_local_directives(merged.settings));
    EXPECT_FALSE(has_local_directives(settings));
}

TEST(local_directives, replace_what_the_agent_always_writes) {
    const local_merge merged = merge("permitrootlogin prohibit-password\nClientAliveInterval 5m\n");
    EXPECT_EQ(added(merged), "PermitRootLogin prohibit-password\nClientAliveInterval 5m\n");
    EXPECT_THAT(merged.settings, Not(HasSubstr("PermitRootLogin yes")));
    EXPECT_THAT(merged.settings, Not(HasSubstr("ClientAliveInterval 60")));
}

TEST(local_directives, of_the_vrf_come_before_those_of_all_vrfs) {
    const local_merge merged = merge("PermitRootLogin no\nAllowUsers alice\n",
                                     "PermitRootLogin yes\nAllowUsers bob carol@10.0.0.0/8\nDebianBanner no\n");
    EXPECT_EQ(added(merged),
              "PermitRootLogin no\nAllowUsers alice\nAllowUsers bob carol@10.0.0.0/8\nDebianBanner no\n");
    EXPECT_THAT(
        remarks_of_directives(merged),
        ElementsAre("1 accepted", "2 accepted", std::string("1 overruled: overruled by ") + own_path + ", line 1",
                    "2 accepted", "3 accepted"));
    EXPECT_EQ(merged.count_in_force(), 4U);
}

TEST(local_directives, blocks_of_the_vrf_come_first_and_all_blocks_last) {
    const local_merge merged =
        merge("Match User eve\n  PermitTTY no\n", "Useless\nMatch all\nPasswordAuthentication no\n");
    EXPECT_EQ(merged.blocks,
              "# local: /etc/ssh_cfg_agent/sshd.d/red.conf, line 1\n"
              "Match User eve\n"
              "    # local: /etc/ssh_cfg_agent/sshd.d/red.conf, line 2\n"
              "    PermitTTY no\n"
              "# local: /etc/ssh_cfg_agent/sshd.d/all.conf, line 2\n"
              "Match all\n"
              "    # local: /etc/ssh_cfg_agent/sshd.d/all.conf, line 3\n"
              "    PasswordAuthentication no\n");
    EXPECT_THAT(merged.refusals(),
                ElementsAre("/etc/ssh_cfg_agent/sshd.d/all.conf, line 1: \"Useless\" refused: unknown keyword"))
        << "the file of all VRFs begins outside of the blocks of the VRF's own";
}

TEST(local_directives, a_misspelled_keyword_is_refused_with_the_nearest_one) {
    EXPECT_EQ(refusal("PaswordAuthentication no"), "unknown keyword; did you mean PasswordAuthentication?");
    EXPECT_EQ(refusal("zzzzzzzzzz no"), "unknown keyword");
}

TEST(local_directives, what_is_configured_is_refused_with_its_item) {
    EXPECT_EQ(refusal("LoginGraceTime 10"),
              "it would overrule what is configured; set /cfg/gl/crypto/ssh/server/cmn/timeout instead");
    EXPECT_EQ(refusal("banner /etc/shadow"), "it would overrule what is configured; set /cfg/gl/banner/0x3 instead");
    EXPECT_EQ(refusal("AllowTcpForwarding no"),
              "it would overrule what is configured; set /cfg/gl/crypto/ssh/server/cmn/port_forwarding instead");
}

TEST(local_directives, what_is_unsafe_or_of_another_place_is_refused) {
    EXPECT_EQ(refusal("UsePAM no"), "the servers authenticate through the PAM service norvosshd");
    EXPECT_EQ(refusal("GatewayPorts yes"), "GatewayPorts is not among the keywords that local directives may have");
    EXPECT_EQ(refusal("ForceCommand id"), "ForceCommand is accepted in Match blocks only");
    EXPECT_EQ(refusal("Match User eve\nListenAddress 192.0.2.1"), "ListenAddress is not accepted in a Match block");
    EXPECT_EQ(refusal("Match User eve\nAllowTcpForwarding yes"), "\"yes\" is not valid; expected no");
    EXPECT_EQ(refusal("PermitRootLogin\001 no"), "the line contains a control character or invalid UTF-8");
    EXPECT_EQ(refusal("AllowUsers \xff"), "the line contains a control character or invalid UTF-8");
    EXPECT_EQ(refusal("AllowUsers " + std::string(9000, 'a')), "the line is longer than 8192 bytes");
}

TEST(local_directives, every_value_form_is_checked) {
    const struct {
        const char* keyword;
        std::vector<const char*> good;
        std::vector<const char*> bad;
    } forms[] = {
        {"PasswordAuthentication", {"yes", "no"}, {"", "maybe", "yes no"}},
        {"KbdInteractiveAuthentication", {"no"}, {"1"}},
        {"PermitRootLogin", {"no", "prohibit-password", "forced-commands-only"}, {"", "sometimes"}},
        {"AuthenticationMethods",
         {"any", "publickey", "publickey,password publickey,keyboard-interactive:pam"},
         {"", "none", "publickey,", "hostbased"}},
        {"AllowUsers", {"alice", "a* bob@10.0.0.0/8"}, {"", "\"alice\""}},
        {"DenyGroups", {"wheel"}, {""}},
        {"AuthorizedKeysFile", {".ssh/authorized_keys /etc/keys/%u", "none"}, {"", "'x'"}},
        {"ListenAddress", {"192.0.2.1", "2001:db8::1", "[2001:db8::1]"}, {"", "192.0.2.1:22", "router", "[192.0.2.1]"}},
        {"ClientAliveInterval", {"0", "5m"}, {"", "often"}},
        {"ClientAliveCountMax", {"0", "3"}, {"", "-1"}},
        {"MaxStartups", {"10", "10:30:100"}, {"", "0", "10:30", "a:b:c"}},
        {"PerSourceMaxStartups", {"none", "5"}, {"", "0"}},
        {"RequiredRSASize", {"3072"}, {"", "512", "99999"}},
        {"AllowAgentForwarding", {"no"}, {"local"}},
        {"AllowStreamLocalForwarding", {"no", "local"}, {"perhaps"}},
        {"DebianBanner", {"no"}, {"none"}},
    };
    for (const auto& form : forms) {
        for (const char* value : form.good) {
            EXPECT_FALSE(merge(std::string(form.keyword) + " " + value + "\n").is_refused()) << form.keyword << value;
        }
        for (const char* value : form.bad) {
            if (std::string_view(value) != "publickey,") {
                EXPECT_THAT(refusal(std::string(form.keyword) + " " + value), HasSubstr("is not valid; expected "))
                    << form.keyword;
            }
        }
    }
}

TEST(local_directives, lists_can_only_become_shorter) {
    EXPECT_EQ(added(merge("MACs hmac-sha2-256,hmac-sha2-512\n")), "MACs hmac-sha2-256,hmac-sha2-512\n");
    EXPECT_EQ(added(merge("MACs -*-sha1\nCiphers -*-cbc\n")),
              "MACs hmac-sha2-512,hmac-sha2-256\nCiphers aes128-ctr,aes256-ctr\n");
    const local_merge more = merge("MACs hmac-sha2-256,hmac-md5,hmac-sha2-256\n");
    EXPECT_EQ(added(more), "MACs hmac-sha2-256\n");
    EXPECT_THAT(remarks_of_directives(more),
                ElementsAre("1 accepted: left out: hmac-md5 (not in the configured list)"));
    EXPECT_EQ(refusal("MACs hmac-md5"), "nothing is left of the list: hmac-md5 (not in the configured list)");
    EXPECT_EQ(refusal("MACs -*"), "nothing is left of the list");
    EXPECT_THAT(refusal("MACs +hmac-md5"), HasSubstr("is not valid; expected names of the configured list"));
    EXPECT_THAT(refusal("MACs"), HasSubstr("is not valid"));
}

TEST(local_directives, key_types_are_filtered_as_fips_mode_demands) {
    const std::string line = "PubkeyAcceptedAlgorithms ssh-ed25519,rsa-sha2-512,unheard-of\n";
    const local_merge free = merge(line);
    EXPECT_EQ(added(free), "PubkeyAcceptedAlgorithms ssh-ed25519,rsa-sha2-512\n");
    EXPECT_THAT(free.settings, Not(HasSubstr("+ssh-rsa")));
    const local_merge fips = merge(line, "", true);
    EXPECT_EQ(added(fips), "PubkeyAcceptedAlgorithms rsa-sha2-512\n");
    EXPECT_THAT(remarks_of_directives(fips),
                ElementsAre("1 accepted: left out: unheard-of (not supported by this OpenSSH); "
                            "ssh-ed25519 (not approved in FIPS mode)"));
    EXPECT_TRUE(merge("Match all\nPubkeyAcceptedAlgorithms ssh-ed25519\n", "", true).is_refused());
}

TEST(local_directives, an_address_that_the_vrf_does_not_have_is_left_out) {
    const local_merge one = merge("ListenAddress 192.0.2.1\nListenAddress 192.0.2.9\n");
    EXPECT_FALSE(one.is_refused());
    EXPECT_EQ(added(one), "ListenAddress 192.0.2.1\n");
    EXPECT_THAT(
        one.not_in_force,
        ElementsAre(std::string(own_path) + ", line 2: ListenAddress left out: no interface of the VRF has the address "
                                            "192.0.2.9 now"));
    const local_merge none = merge("ListenAddress 192.0.2.9\n");
    EXPECT_EQ(added(none), "");
    EXPECT_EQ(none.not_in_force.back(),
              "the server listens on all addresses, because the VRF has none of those in its local directives");
}

TEST(local_directives, a_duplicate_is_refused_and_a_half_closed_door_is_pointed_out) {
    EXPECT_EQ(refusal("PermitRootLogin no\nPermitRootLogin no"), "duplicate: line 1 has set it");
    EXPECT_THAT(remarks_of_directives(merge("PasswordAuthentication no\n")),
                ElementsAre("1 accepted: passwords are still accepted by keyboard-interactive authentication"));
    EXPECT_THAT(remarks_of_directives(merge("KbdInteractiveAuthentication no\nPasswordAuthentication no\n")),
                ElementsAre("1 accepted", "2 accepted"));
}

// sshd reads the criteria only when somebody connects, and then refuses everybody.
TEST(local_directives, criteria_of_blocks_are_checked) {
    for (const char* good : {"all", "User alice,bob", "Group wheel Address 10.0.0.0/8,!10.1.0.0/16", "LocalPort 22",
                             "Address 2001:db8::/32", "LocalAddress 192.0.2.*", "address 192.0.2.1"}) {
        EXPECT_TRUE(is_match_criteria(good)) << good;
    }
    for (const char* bad :
         {"", "User", "Usr alice", "Address 10.0.0.1/8", "Address 10.0.0.0/33", "Address 10.0.0/8", "LocalPort ssh",
          "Host example", "all User alice", "User \"alice\"", "Address 2001:db8::1/32"}) {
        EXPECT_FALSE(is_match_criteria(bad)) << bad;
    }
    EXPECT_THAT(refusal("Match Usr alice"), HasSubstr("expected all, or pairs of User, Group"));
}

TEST(local_directives, what_makes_root_is_marked) {
    const local_merge merged = merge("AuthorizedKeysFile /tmp/%u\nPermitRootLogin no\nMatch all\nForceCommand id\n");
    std::vector<bool> marks;
    for (const local_verdict& one : merged.verdicts) {
        marks.push_back(one.is_reserved_to_root);
    }
    EXPECT_THAT(marks, ElementsAre(true, false, false, true));
}

TEST(local_directives, everything_at_once_matches_its_file) {
    const known_algorithms known = fixed_algorithms();
    const translation result = translate(
        {.text =
             "UsePAM yes\nPermitRootLogin yes\nHostKey /pkg/ed25519\nPort 22\nPort 830\nAcceptedAlgorithms ssh-rsa\n",
         .source_name = "/files/sshd_config_red",
         .known = &known,
         .key_is_usable = [](const std::string&) { return true; },
         .local_files = {{own_path,
                          "PasswordAuthentication no\nMACs -hmac-sha1\nListenAddress 192.0.2.1\n"
                          "Match Group sftp\n\tForceCommand internal-sftp\n\tDisableForwarding yes\n"},
                         {all_path,
                          "PermitRootLogin no\nKexAlgorithms -*-sha1\nPubkeyAcceptedAlgorithms rsa-sha2-512\n"
                          "PasswordAuthentication yes\nMatch Address 10.0.0.0/8\nPasswordAuthentication yes\n"}}});
    ASSERT_FALSE(result.local.is_refused());
    expect_golden("openssh/golden/local_directives", result.text);
}

TEST(local_directives, every_keyword_is_known_to_the_launcher_and_stands_once_a_place) {
    for (const bool in_block : {false, true}) {
        for (const local_row& row : local_rows()) {
            const bool is_here = (static_cast<unsigned>(row.place) &
                                  static_cast<unsigned>(in_block ? local_place::block : local_place::server)) != 0;
            if (is_here) {
                EXPECT_EQ(find_local_row(row.keyword, in_block), &row) << row.keyword;
            }
        }
    }
    for (const local_row& row : local_rows()) {
        EXPECT_NE(find_keyword_row(server_keyword_rows(), row.keyword), nullptr) << row.keyword;
        EXPECT_EQ(row.form == nullptr,
                  row.how != local_rule::setting && row.how != local_rule::cumulative && row.how != local_rule::address)
            << row.keyword;
    }
}
