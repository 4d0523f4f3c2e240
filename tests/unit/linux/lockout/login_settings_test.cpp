#include "linux/lockout/login_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

login_session password_session() {
    login_session session;
    session.vrf_name = "red";
    session.source = "10.1.2.3";
    session.user = "nobody";
    session.method = "password";
    session.kex = "curve25519-sha256";
    session.in_cipher = "aes128-ctr";
    session.in_mac = "hmac-sha1";
    return session;
}

std::vector<std::string> reasons_for(const std::string& after, login_session session = password_session()) {
    return lockout_of_settings(session, "passwordauthentication yes\nkbdinteractiveauthentication yes\n", after);
}

TEST(login_settings, nothing_changes_nothing) {
    EXPECT_THAT(reasons_for("passwordauthentication yes\n"), IsEmpty());
    EXPECT_THAT(reasons_for(""), IsEmpty());
    EXPECT_THAT(lockout_of_settings(password_session(), "allowusers alice\n", "allowusers bob\n"), IsEmpty())
        << "who is kept out already is not kept out by the change";
}

TEST(login_settings, passwords_need_one_of_two_ways) {
    EXPECT_THAT(reasons_for("passwordauthentication no\nkbdinteractiveauthentication yes\n"), IsEmpty());
    const std::string closed = "passwordauthentication no\nkbdinteractiveauthentication no\n";
    EXPECT_THAT(reasons_for(closed), ElementsAre("passwords would not be accepted, and you are logged in with one"));
    login_session session = password_session();
    session.method = "publickey";
    EXPECT_THAT(reasons_for(closed, session), IsEmpty());
}

TEST(login_settings, users_are_admitted_by_name_and_address) {
    EXPECT_THAT(reasons_for("allowusers root\nallowusers alice\n"), ElementsAre("AllowUsers would not name nobody"));
    EXPECT_THAT(reasons_for("allowusers root\nallowusers no*\n"), IsEmpty());
    EXPECT_THAT(reasons_for("allowusers nobody@10.0.0.0/8\n"), IsEmpty());
    EXPECT_THAT(reasons_for("allowusers nobody@10.1.2.?\n"), IsEmpty());
    EXPECT_THAT(reasons_for("allowusers nobody@192.0.2.0/24\n"), ElementsAre("AllowUsers would not name nobody"));
    EXPECT_THAT(reasons_for("denyusers nobody\n"), ElementsAre("DenyUsers would name nobody"));
    EXPECT_THAT(reasons_for("denyusers nobody@2001:db8::/32\n"), IsEmpty());
}

TEST(login_settings, groups_are_those_of_the_account) {
    EXPECT_THAT(reasons_for("allowgroups nogroup\n"), IsEmpty());
    EXPECT_THAT(reasons_for("allowgroups root\n"), ElementsAre("AllowGroups would not name nobody"));
    EXPECT_THAT(reasons_for("denygroups no*\n"), ElementsAre("DenyGroups would name nobody"));
}

TEST(login_settings, root_may_be_kept_out_or_need_a_key) {
    login_session session = password_session();
    session.user = "root";
    EXPECT_THAT(reasons_for("permitrootlogin no\n", session), ElementsAre("PermitRootLogin would keep root out"));
    EXPECT_THAT(reasons_for("permitrootlogin without-password\n", session),
                ElementsAre("PermitRootLogin would not accept root's password, and you are logged in with it"));
    session.method = "publickey";
    EXPECT_THAT(reasons_for("permitrootlogin without-password\n", session), IsEmpty());
    EXPECT_THAT(reasons_for("permitrootlogin no\n"), IsEmpty());
}

TEST(login_settings, what_the_session_negotiated_must_be_offered) {
    EXPECT_THAT(
        reasons_for("macs hmac-sha2-256\n"),
        ElementsAre("the server of VRF red would no longer offer MAC hmac-sha1, which your session negotiated"));
    EXPECT_THAT(reasons_for("macs hmac-sha2-256,hmac-sha1\nciphers aes128-ctr\n"), IsEmpty());
    login_session session = password_session();
    session.in_mac = "<implicit>";
    EXPECT_THAT(reasons_for("macs hmac-sha2-256\n", session), IsEmpty());
}

}  // namespace
