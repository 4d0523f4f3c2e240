#include "ssh_cfg_ctl/sessions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "control_protocol/answer.h"

namespace {

using testing::HasSubstr;
using testing::Not;

control_json session() {
    return {{"id", 12},
            {"state", "established"},
            {"vrf", "red"},
            {"user", "operator"},
            {"address", "10.0.0.7"},
            {"port", 40000},
            {"since", "2026-11-22T19:00:00Z"},
            {"method", "ed25519-pubkey"},
            {"key", {{"type", "ED25519"}, {"fingerprint", "SHA256:abc"}}},
            {"algorithms",
             {{"key_exchange", "curve25519-sha256"},
              {"host_key", "ssh-ed25519"},
              {"cipher_in", "aes128-ctr"},
              {"cipher_out", "aes128-ctr"},
              {"mac_in", "hmac-sha2-256"},
              {"mac_out", "hmac-sha2-512"}}},
            {"terminals", {"pts/3", "pts/4"}},
            {"idle", 125},
            {"pid", 4711}};
}

control_json list_of(control_json session) {
    control_json list = control_json::array();
    list.push_back(std::move(session));
    return list;
}

}  // namespace

TEST(ctl_sessions, are_a_table) {
    EXPECT_EQ(
        ctl_sessions_text(list_of(session()), 0),
        "ID  VRF  User      Source          Since                 Method          Key         Algorithms         "
        "Terminal  Idle  PID\n"
        "12  red  operator  10.0.0.7:40000  2026-11-22T19:00:00Z  ed25519-pubkey  ED25519     curve25519-sha256  "
        "pts/3     2m    4711\n"
        "                                                                         SHA256:abc  ssh-ed25519        "
        "pts/4\n"
        "                                                                                     aes128-ctr\n"
        "                                                                                     in hmac-sha2-256\n"
        "                                                                                     out hmac-sha2-512\n");
    EXPECT_EQ(ctl_sessions_text(control_json::array(), 0), "no sessions\n");
}

TEST(ctl_sessions, show_what_is_unknown_as_such) {
    control_json connection = session();
    for (const char* member : {"id", "user", "method", "key", "algorithms", "idle", "vrf"}) {
        connection[member] = nullptr;
    }
    connection["state"] = "authenticating";
    connection["address"] = "2001:db8::7";
    connection["terminals"] = control_json::array();
    const std::string text = ctl_sessions_text(list_of(connection), 0);
    EXPECT_THAT(text, HasSubstr("[2001:db8::7]:40000"));
    EXPECT_THAT(text, HasSubstr("(authenticating)"));
    EXPECT_THAT(text, Not(HasSubstr("null")));
}

TEST(ctl_sessions, cannot_control_the_terminal) {
    control_json hostile = session();
    hostile["user"] = "\x1b[2J\nforged";
    EXPECT_THAT(ctl_sessions_text(list_of(hostile), 0), Not(HasSubstr("\x1b")));
    EXPECT_THAT(ctl_ended_sessions_text(list_of(hostile)), Not(HasSubstr("\nforged")));
}

TEST(ctl_sessions, that_were_ended_are_named) {
    control_json connection = session();
    connection["id"] = nullptr;
    connection["user"] = nullptr;
    control_json both = list_of(session());
    both.push_back(connection);
    EXPECT_EQ(ctl_ended_sessions_text(both),
              "ended session 12 of operator in VRF red (PID 4711)\n"
              "ended a connection of - in VRF red (PID 4711)\n");
}

TEST(ctl_duration, has_two_units_at_most) {
    EXPECT_EQ(ctl_duration_text(0), "0s");
    EXPECT_EQ(ctl_duration_text(59), "59s");
    EXPECT_EQ(ctl_duration_text(60), "1m");
    EXPECT_EQ(ctl_duration_text(3599), "59m");
    EXPECT_EQ(ctl_duration_text(3660), "1h 01m");
    EXPECT_EQ(ctl_duration_text(86400 * 2 + 3600 * 4), "2d 04h");
}
