#include "linux/lockout/lockout.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// alice, logged in with a key from 192.0.2.7 to port 22 of VRF red.
login_session lockout_session() {
    login_session session;
    session.vrf_name = "red";
    session.connection = {
        .source = {192, 0, 2, 7}, .destination = {192, 0, 2, 1}, .source_port = 50000, .destination_port = 22};
    session.source = "192.0.2.7";
    session.user = "alice";
    session.method = "ed25519-pubkey";
    session.kex = "curve25519-sha256";
    session.host_key = "rsa-sha2-512";
    session.in_cipher = session.out_cipher = "aes128-ctr";
    session.in_mac = session.out_mac = "hmac-sha2-256";
    return session;
}

constexpr char admitting[] = "ip saddr 192.0.2.0/24 tcp dport 22 accept\n";
constexpr char refusing[] = "ip saddr 10.0.0.0/8 tcp dport 22 accept\ntcp dport 22 drop\n";

login_conditions usual() {
    return {.has_server = true, .lists = {}, .keys = {"ssh-ed25519 AAAA"}};
}

TEST(lockout_reasons, a_change_that_concerns_no_login_has_none) {
    EXPECT_THAT(lockout_reasons(lockout_session(), {usual(), usual()}), IsEmpty());
    EXPECT_THAT(lockout_reasons(lockout_session(), {usual(), usual(), {"-LoginGraceTime 30", "+LoginGraceTime 45"}}),
                IsEmpty());
}

TEST(lockout_reasons, the_server_is_removed) {
    login_change change = {usual(), usual()};
    change.after.has_server = false;
    EXPECT_THAT(lockout_reasons(lockout_session(), change),
                ElementsAre("this change removes the server of VRF red on port 22, to which you are connected"));
    change.before.has_server = false;
    EXPECT_THAT(lockout_reasons(lockout_session(), change), IsEmpty()) << "not by this change";
}

TEST(lockout_reasons, a_list_does_not_admit_the_source) {
    login_change change = {usual(), usual()};
    change.after.lists[0] = {"mgmt", refusing};
    EXPECT_THAT(
        lockout_reasons(lockout_session(), change),
        ElementsAre("list mgmt, which this change binds to VRF red, does not admit 192.0.2.7, from which you are "
                    "logged in"));
    change.before.lists[0] = {"mgmt", admitting};
    EXPECT_THAT(lockout_reasons(lockout_session(), change),
                ElementsAre("list mgmt, which is bound to VRF red, would no longer admit 192.0.2.7, from which you are "
                            "logged in"));
    change.before.lists[0].rules = refusing;
    EXPECT_THAT(lockout_reasons(lockout_session(), change), IsEmpty()) << "not by this change";
    change.before.lists[0].rules = change.after.lists[0].rules = admitting;
    EXPECT_THAT(lockout_reasons(lockout_session(), change), IsEmpty());
}

// The packets for one service pass the lists of the other one, too.
TEST(lockout_reasons, the_list_of_the_other_service_closes_the_port) {
    login_change change = {usual(), usual()};
    change.after.lists[1] = {"nc", "tcp dport ne 830 drop\n"};
    EXPECT_EQ(lockout_reasons(lockout_session(), change).size(), 1U);
}

TEST(lockout_reasons, fips_mode_does_not_allow_what_was_negotiated) {
    const login_change change = {usual(), usual(), {"+NorvoSSHFipsMode yes"}};
    EXPECT_THAT(
        lockout_reasons(lockout_session(), change),
        ElementsAre("FIPS mode, which this change turns on, does not allow key exchange curve25519-sha256, which "
                    "your session negotiated"));
    login_session session = lockout_session();
    session.kex = "ecdh-sha2-nistp256";
    EXPECT_THAT(lockout_reasons(session, change), IsEmpty());
    session.in_cipher = "chacha20-poly1305@openssh.com";
    session.in_mac = "<implicit>";
    EXPECT_THAT(lockout_reasons(session, change),
                ElementsAre("FIPS mode, which this change turns on, does not allow cipher "
                            "chacha20-poly1305@openssh.com, which your session negotiated"));
    EXPECT_THAT(lockout_reasons(session, {usual(), usual(), {"-NorvoSSHFipsMode yes"}}), IsEmpty());
}

TEST(lockout_reasons, the_server_no_longer_offers_what_was_negotiated) {
    const auto reasons = [](std::vector<std::string> lines) {
        return lockout_reasons(lockout_session(), {usual(), usual(), std::move(lines)});
    };
    EXPECT_THAT(
        reasons({"-Ciphers aes128-ctr,aes256-ctr", "+Ciphers aes256-ctr"}),
        ElementsAre("the server of VRF red would no longer offer cipher aes128-ctr, which your session negotiated"));
    EXPECT_EQ(reasons({"-MACs hmac-sha2-512,hmac-sha2-256", "+MACs hmac-sha2-512"}).size(), 1U);
    EXPECT_EQ(reasons({"+KexAlgorithms ecdh-sha2-nistp256"}).size(), 1U) << "in place of the default list";
    EXPECT_EQ(reasons({"-HostKeyAlgorithms rsa-sha2-512", "+HostKeyAlgorithms ssh-ed25519"}).size(), 1U);
    EXPECT_THAT(reasons({"-Ciphers aes256-ctr", "+Ciphers aes256-ctr,aes128-ctr"}), IsEmpty());
    EXPECT_THAT(reasons({"-Ciphers aes256-ctr", "+Ciphers aes192-ctr"}), IsEmpty()) << "not by this change";
    EXPECT_THAT(reasons({"-Ciphers aes128-ctr"}), IsEmpty()) << "the default list contains it";
    login_session session = lockout_session();
    session.in_cipher = session.out_cipher = "aes128-cbc";
    EXPECT_EQ(lockout_reasons(session, {usual(), usual(), {"-Ciphers aes128-cbc"}}).size(), 1U);
}

TEST(lockout_reasons, the_key_is_deleted_or_replaced) {
    login_change change = {usual(), usual()};
    change.after.keys = {};
    EXPECT_THAT(lockout_reasons(lockout_session(), change),
                ElementsAre("this change deletes the public key of alice, and you are logged in with a public key"));
    change.after.keys = {"ssh-ed25519 BBBB"};
    EXPECT_THAT(lockout_reasons(lockout_session(), change),
                ElementsAre("this change replaces the public key of alice, and you are logged in with a public key"));
    login_session session = lockout_session();
    session.method = "password";
    EXPECT_THAT(lockout_reasons(session, change), IsEmpty());
}

TEST(lockout_reasons, the_options_of_the_key_are_changed) {
    login_change change = {usual(), usual()};
    for (const char* line : {"from=\"10.0.0.0/8\" ssh-ed25519 AAAA", "command=\"a b\",restrict ssh-ed25519 AAAA"}) {
        change.after.keys = {"ssh-rsa CCCC", line};
        EXPECT_THAT(
            lockout_reasons(lockout_session(), change),
            ElementsAre("this change changes the options of the public key of alice, and you are logged in with a "
                        "public key"));
    }
    change.after.keys = {"ssh-rsa CCCC", "ssh-ed25519 AAAA"};
    EXPECT_THAT(lockout_reasons(lockout_session(), change), IsEmpty()) << "another key";
}

TEST(lockout_reasons, fips_mode_does_not_allow_the_key) {
    login_session session = lockout_session();
    session.kex = "ecdh-sha2-nistp256";
    session.key_type = "ED25519";
    const login_change change = {usual(), usual(), {"+NorvoSSHFipsMode yes"}};
    EXPECT_THAT(
        lockout_reasons(session, change),
        ElementsAre("FIPS mode, which this change turns on, does not allow keys of type ED25519, and you are logged "
                    "in with one"));
    for (const char* approved : {"RSA", "ECDSA", ""}) {
        session.key_type = approved;
        EXPECT_THAT(lockout_reasons(session, change), IsEmpty()) << approved;
    }
    session.key_type = "ED25519-SK";
    EXPECT_EQ(lockout_reasons(session, change).size(), 1U);
    session.method = "password";
    EXPECT_THAT(lockout_reasons(session, change), IsEmpty());
}

}  // namespace
