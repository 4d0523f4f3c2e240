#include "ssh_cfg_ctl/client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "fake_agent.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const ctl_connection_settings settings = {fake_agent::path(), 5, false};
const control_json status_request = {{"call", "status"}};

TEST(ctl_ask, sends_the_request_and_returns_the_answer) {
    fake_agent agent({R"({"result":"done","data":7})"});
    EXPECT_EQ(control_json_text(ctl_ask(settings, status_request)), R"({"result":"done","data":7})");
    EXPECT_THAT(agent.requests, ElementsAre(R"({"call":"status"})"));
}

TEST(ctl_ask, accepts_large_answers) {
    const std::string data(10'000'000, 'x');
    fake_agent agent({R"({"result":"done","data":")" + data + "\"}"});
    EXPECT_EQ(ctl_ask(settings, status_request)["data"], data);
}

TEST(ctl_ask, reports_why_it_cannot_connect) {
    const control_json absent = ctl_ask({"/nowhere/control.sock", 5, false}, status_request);
    EXPECT_EQ(absent["result"], "unreachable");
    EXPECT_THAT(absent.value("message", ""), HasSubstr("/nowhere/control.sock: it is not running"));
    const control_json too_long = ctl_ask({std::string(200, 'x'), 5, false}, status_request);
    EXPECT_EQ(too_long["result"], "unreachable");
    EXPECT_THAT(too_long.value("message", ""), HasSubstr("File name too long"));
}

TEST(ctl_ask, an_agent_that_dies_during_the_request_is_unreachable) {
    fake_agent agent({""});
    const control_json answer = ctl_ask(settings, status_request);
    EXPECT_EQ(answer["result"], "unreachable");
    EXPECT_THAT(answer.value("message", ""),
                HasSubstr("closed the connection before answering; a change may or may not be stored"));
}

TEST(ctl_ask, a_silent_agent_is_unreachable_after_the_timeout) {
    // It listens but accepts no connection while the first one lasts.
    fake_agent agent({});
    const auto start = std::chrono::steady_clock::now();
    const control_json answer = ctl_ask({fake_agent::path(), 1, false}, status_request);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(answer["result"], "unreachable");
    EXPECT_THAT(answer.value("message", ""), HasSubstr("did not answer within 1 seconds"));
}

TEST(ctl_ask, retries_when_no_connection_was_free) {
    const std::string busy = R"({"result":"failed","retry":true})";
    fake_agent agent({busy, busy, R"({"result":"done"})"});
    EXPECT_EQ(ctl_ask(settings, status_request)["result"], "done");
    EXPECT_EQ(agent.requests.size(), 3U);
}

TEST(ctl_ask, reads_an_answer_sent_before_the_request_was_complete) {
    fake_agent agent({R"({"result":"refused","message":"too large"})"}, 1000);
    control_json large = status_request;
    large["pad"] = std::string(8'000'000, 'x');
    EXPECT_EQ(ctl_ask(settings, large)["message"], "too large");
}

TEST(ctl_ask, shows_the_reports_before_the_answer_if_they_are_wanted) {
    const std::string report = R"({"progress":{"work":"applying /a","done":1,"total":2,"waiting":false}})";
    fake_agent agent({report + "\n" + report + "\n" + R"({"result":"done","data":7})"});
    testing::internal::CaptureStderr();
    const control_json answer = ctl_ask({fake_agent::path(), 5, false, ctl_progress::lines}, status_request);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ssh_cfg_ctl: 1 of 2: applying /a\n");
    EXPECT_EQ(answer["data"], 7);
    EXPECT_THAT(agent.requests, ElementsAre(R"({"call":"status","progress":true})"));
}

TEST(ctl_ask, does_not_send_a_request_too_large_for_a_frame) {
    control_json large = status_request;
    large["pad"] = std::string(CONTROL_FRAME_MAX, 'x');
    EXPECT_EQ(ctl_ask(settings, large)["result"], "refused");
}

TEST(ctl_ask, an_invalid_answer_is_a_failure) {
    fake_agent agent({"not json", "[]"});
    EXPECT_EQ(ctl_ask(settings, status_request)["result"], "failed");
    EXPECT_EQ(ctl_ask(settings, status_request)["result"], "failed");
}

}  // namespace
