#include "linux/control/connection.h"

#include <gmock/gmock.h>

#include "unit/linux/control/control_test_support.h"

using control_test::client;
using control_test::frame_of;
using control_test::header_announcing;
using testing::HasSubstr;

namespace {

class control_connection_test : public control_test::server_test {
  protected:
    void expect_refused_and_dropped(client& peer, const char* reason) {
        const control_json answer = answer_to(peer);
        EXPECT_EQ(answer.value("result", ""), "refused");
        EXPECT_THAT(answer.value("message", ""), HasSubstr(reason));
        EXPECT_TRUE(is_dropped(peer));
        EXPECT_EQ(server->connections.size(), 0U);
        EXPECT_EQ(server->large_frames, 0U);
        EXPECT_EQ(server->answers, 0U);
    }

    void expect_refused(const std::string& bytes, const char* reason) {
        client peer;
        put_all(peer, bytes);
        expect_refused_and_dropped(peer, reason);
        expect_others_are_answered();
    }
};

TEST_F(control_connection_test, answers_consecutive_calls) {
    start();
    client peer;
    for (int number = 0; number < 3; number++) {
        const std::string request = R"({"call":"echo","number":)" + std::to_string(number) + "}";
        const control_json answer = ask(peer, request);
        EXPECT_EQ(answer["result"], "done");
        EXPECT_EQ(control_json_text(answer["data"]), request);
        EXPECT_EQ(answer["uid"], getuid());
    }
}

TEST_F(control_connection_test, answers_requests_that_arrived_together_in_order) {
    start();
    client peer;
    put_all(peer, frame_of(R"({"call":"echo","n":1})") + frame_of(R"({"call":"echo","n":2})"));
    EXPECT_EQ(answer_to(peer)["data"]["n"], 1);
    EXPECT_EQ(answer_to(peer)["data"]["n"], 2);
}

TEST_F(control_connection_test, accepts_a_frame_byte_by_byte) {
    start();
    client peer;
    for (const char byte : frame_of(R"({"call":"echo"})")) {
        EXPECT_EQ(peer.put(std::string_view(&byte, 1)), 1U);
        run_once();
    }
    EXPECT_EQ(answer_to(peer)["result"], "done");
}

TEST_F(control_connection_test, accepts_a_frame_of_maximum_size) {
    start();
    client peer;
    const std::string frame_start = R"({"call":"echo2","pad":")";
    const std::string document = frame_start + std::string(CONTROL_FRAME_MAX - frame_start.size() - 2, 'x') + "\"}";
    ASSERT_EQ(document.size(), CONTROL_FRAME_MAX);
    // The test's answer repeats the request, which makes it too large for a frame.
    const control_json answer = ask(peer, document);
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_THAT(answer.value("message", ""), HasSubstr("the answer exceeds the maximum frame size"));
    EXPECT_EQ(ask(peer, R"({"call":"echo"})")["result"], "done");
    EXPECT_EQ(server->large_frames, 0U);
}

TEST_F(control_connection_test, refuses_a_frame_that_is_too_large) {
    start();
    expect_refused(header_announcing(CONTROL_FRAME_MAX + 1),
                   "a frame of 16777217 bytes exceeds the maximum of 16777216");
    expect_refused(header_announcing(0xffffffff) + "xxxx", "a frame of 4294967295 bytes");
}

TEST_F(control_connection_test, the_answer_reaches_a_peer_that_was_still_sending) {
    start();
    client peer;
    peer.put(header_announcing(CONTROL_FRAME_MAX + 1) + std::string(100'000, 'x'));
    expect_refused_and_dropped(peer, "a frame of 16777217 bytes");
}

TEST_F(control_connection_test, refuses_invalid_json) {
    start();
    expect_refused(frame_of(""), "not JSON");
    expect_refused(frame_of("{\"call\":"), "not JSON");
    expect_refused(frame_of("GET / HTTP/1.1\r\n"), "not JSON");
    expect_refused(frame_of("{\"call\":\"echo\xff\"}"), "UTF-8");
    expect_refused(frame_of(std::string("{}\0", 3)), "NUL");
    expect_refused(frame_of(std::string(100'000, '[')), "nested more than 16 levels deep");
    expect_refused(frame_of(R"({"call":"echo","call":"throw"})"), "duplicate name \"call\"");
}

TEST_F(control_connection_test, describes_a_valid_request) {
    start();
    client peer;
    for (const char* document : {"[]", "1", "null", "{}", R"({"call":1})", R"({"Call":"echo"})"}) {
        EXPECT_EQ(ask(peer, document)["result"], "usage") << document;
    }
    EXPECT_EQ(ask(peer, R"({"call":"echo"})")["result"], "done");
}

TEST_F(control_connection_test, answers_an_incomplete_frame) {
    start();
    client peer;
    peer.put(frame_of(R"({"call":"echo"})").substr(0, 10));
    peer.end_output();
    expect_refused_and_dropped(peer, "it ends in the middle of a frame");
    client header_only;
    header_only.put("\x01");
    header_only.end_output();
    expect_refused_and_dropped(header_only, "it ends in the middle of a frame");
}

TEST_F(control_connection_test, closes_the_connection_of_a_peer_that_hangs_up) {
    start();
    {
        client silent;
        client half;
        half.put(header_announcing(1'000'000) + "x");
        client asking;
        asking.put(frame_of(R"({"call":"large","size":1000000})"));
        EXPECT_TRUE(run_until([&] { return server->answers > 0 && server->large_frames > 0; }));
        EXPECT_EQ(server->connections.size(), 3U);
    }
    EXPECT_TRUE(run_until([&] { return server->connections.size() == 0; }));
    EXPECT_EQ(server->answers, 0U);
    EXPECT_EQ(server->large_frames, 0U);
}

TEST_F(control_connection_test, drops_a_peer_that_never_completes_its_frame) {
    limits.frame_time = 300'000;
    start();
    client slow;
    const std::string frame = frame_of(R"({"call":"echo","pad":")" + std::string(1000, 'x') + "\"}");
    size_t sent = 0;
    const auto begin = std::chrono::steady_clock::now();
    // Single bytes do not extend the time limit, which applies to the whole frame.
    EXPECT_TRUE(run_until([&] {
        sent += slow.put(frame.substr(sent, 1));
        expect_others_are_answered();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return slow.has_answer();
    }));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    EXPECT_GT(sent, 4U);
    EXPECT_THAT(slow.answer().value("message", ""), HasSubstr("the frame is still incomplete after"));
    EXPECT_TRUE(is_dropped(slow));
}

TEST_F(control_connection_test, drops_a_silent_peer) {
    limits.idle_time = 200'000;
    start();
    client silent;
    client served;
    EXPECT_EQ(ask(served, R"({"call":"echo"})")["result"], "done");
    EXPECT_TRUE(is_dropped(silent));
    EXPECT_TRUE(is_dropped(served));
    EXPECT_FALSE(silent.has_answer());
}

TEST_F(control_connection_test, drops_a_peer_that_does_not_read) {
    limits.answer_time = 300'000;
    start();
    client deaf;
    deaf.put(frame_of(R"({"call":"large","size":8000000})"));
    EXPECT_TRUE(run_until([&] { return server->answers > 0; }));
    expect_others_are_answered();
    EXPECT_TRUE(run_until([&] { return server->connections.size() == 0; }));
    EXPECT_EQ(server->answers, 0U);
}

TEST_F(control_connection_test, a_slow_reader_receives_its_answer) {
    limits.answer_time = 300'000;
    start();
    client slow;
    slow.put(frame_of(R"({"call":"large","size":4000000})"));
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(run_until([&] { return server->answers > 0; }));
    EXPECT_TRUE(run_until([&] {
        run_once(20'000);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        slow.take(200'000);
        return slow.is_ended() || server->connections.size() == 0 || server->answers == 0;
    }));
    EXPECT_GT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
    EXPECT_EQ(answer_to(slow)["data"].get<std::string>().size(), 4'000'000U);
}

TEST_F(control_connection_test, time_spent_in_a_long_handler_is_not_charged_to_the_peer) {
    limits.frame_time = 200'000;
    start();
    client half;
    const std::string frame = frame_of(R"({"call":"echo"})");
    half.put(frame.substr(0, 8));
    EXPECT_TRUE(run_until([&] { return server->connections.size() == 1; }));
    run_once();
    client sleeper;
    EXPECT_EQ(ask(sleeper, R"({"call":"sleep","milliseconds":1500})")["result"], "done");
    half.put(frame.substr(8));
    EXPECT_EQ(answer_to(half)["result"], "done");
}

TEST_F(control_connection_test, large_frames_take_turns) {
    limits.large_frames = 1'000'000;
    start();
    client first;
    first.put(header_announcing(900'000) + "x");
    EXPECT_TRUE(run_until([&] { return server->large_frames == 900'000; }));
    client second;
    second.put(header_announcing(200'000) + "x");
    const control_json answer = answer_to(second);
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_EQ(answer["retry"], true);
    EXPECT_TRUE(is_dropped(second));
    expect_others_are_answered();
    first.hang_up();
    EXPECT_TRUE(run_until([&] { return server->large_frames == 0; }));
    client third;
    EXPECT_EQ(ask(third, R"({"call":"echo","pad":")" + std::string(200'000, 'x') + "\"}")["result"], "done");
}

TEST_F(control_connection_test, unread_answers_leave_space_for_others) {
    limits.answers = 3'000'000;
    start();
    client deaf;
    deaf.put(frame_of(R"({"call":"large","size":2900000})"));
    EXPECT_TRUE(run_until([&] { return server->answers > 0; }));
    client next;
    const control_json answer = ask(next, R"({"call":"large","size":2900000})");
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_EQ(answer["retry"], true);
    expect_others_are_answered();
}

TEST_F(control_connection_test, survives_a_call_that_throws) {
    start();
    client peer;
    put_all(peer, frame_of(R"({"call":"throw"})"));
    EXPECT_TRUE(is_dropped(peer));
    EXPECT_FALSE(peer.has_answer());
    expect_others_are_answered();
}

TEST_F(control_connection_test, the_answer_waits_for_work_that_the_call_left_to_the_loop) {
    start();
    client peer;
    peer.put(frame_of(R"({"call":"echo"})"));
    EXPECT_TRUE(run_until([&] { return server->answers > 0; }));
    EXPECT_FALSE(peer.has_answer());
    EXPECT_EQ(answer_to(peer)["result"], "done");
}

}  // namespace
