#include "ssh_cfg_ctl/failures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "control_protocol/answer.h"

namespace {

using testing::HasSubstr;
using testing::Not;

control_json failure() {
    return {{"time", "2026-11-23T02:00:40Z"},
            {"event", "login-failed"},
            {"vrf", "red"},
            {"user", "operator"},
            {"address", "10.0.0.7"},
            {"port", 40000},
            {"method", "publickey"},
            {"reason", "no luck"},
            {"detail", nullptr},
            {"key", "RSA SHA256:a"},
            {"refused", 1},
            {"pid", 7}};
}

std::string request_of(const std::vector<std::string>& arguments) {
    const ctl_request request = ctl_failures_request(arguments);
    return request.problem.is_null() ? control_json_text(request.document) : request.problem.value("message", "usage");
}

}  // namespace

TEST(ctl_failures, are_a_table) {
    control_json unknown = failure();
    for (const char* member : {"user", "method", "key"}) {
        unknown[member] = nullptr;
    }
    unknown["address"] = "2001:db8::7";
    unknown["detail"] = "the client offers x";
    EXPECT_EQ(ctl_failures_text(control_json::array({failure(), unknown}), 0),
              "Time                  VRF  User      Source               Method     Reason\n"
              "2026-11-23T02:00:40Z  red  operator  10.0.0.7:40000       publickey  no luck\n"
              "                                                                     RSA SHA256:a\n"
              "2026-11-23T02:00:40Z  red  -         [2001:db8::7]:40000  -          no luck\n"
              "                                                                     the client offers x\n");
    EXPECT_EQ(ctl_failures_text(control_json::array(), 0), "no failed logins\n");
    EXPECT_EQ(ctl_failures_text(nullptr, 0), "no failed logins\n");
}

TEST(ctl_failures, cannot_control_the_terminal) {
    control_json hostile = failure();
    hostile["user"] = "\x1b[31m\nforged";
    hostile["reason"] = "\u202e\x07";
    EXPECT_THAT(ctl_failures_text(control_json::array({hostile}), 0), Not(HasSubstr("\x1b")));
    EXPECT_THAT(ctl_failures_text(control_json::array({hostile}), 0), Not(HasSubstr("\nforged")));
    EXPECT_THAT(ctl_login_event_text(hostile), Not(HasSubstr("\n")));
}

TEST(ctl_failures, are_selected_by_number_and_vrf) {
    EXPECT_EQ(request_of({}), R"({"call":"failures"})");
    EXPECT_EQ(request_of({"red"}), R"({"call":"failures","vrf":"red"})");
    EXPECT_EQ(request_of({"red", "--lines", "5"}), R"({"call":"failures","lines":5,"vrf":"red"})");
    EXPECT_EQ(request_of({"--lines=1000"}), R"({"call":"failures","lines":1000})");
    EXPECT_EQ(request_of({"--lines", "1001"}), "--lines: expected a number from 1 to 1000, not '1001'");
    for (const std::vector<std::string>& wrong : {std::vector<std::string>{"a", "b"}, {"--lines"}, {""}, {"--all"}}) {
        EXPECT_EQ(request_of(wrong), "usage");
    }
}

TEST(ctl_login_event, is_one_line) {
    control_json event = failure();
    EXPECT_EQ(ctl_login_event_text(event),
              "2026-11-23T02:00:40Z  red  operator  10.0.0.7:40000  login failed with publickey: no luck");
    event["event"] = "login";
    EXPECT_EQ(ctl_login_event_text(event), "2026-11-23T02:00:40Z  red  operator  10.0.0.7:40000  login with publickey");
    event["event"] = "logout";
    event["duration"] = 125U;
    event["dropped"] = 3;
    EXPECT_EQ(ctl_login_event_text(event),
              "2026-11-23T02:00:40Z  red  operator  10.0.0.7:40000  logout after 2m (3 earlier events not shown)");
}
