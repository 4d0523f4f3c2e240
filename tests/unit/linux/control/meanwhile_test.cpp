#include <gmock/gmock.h>

#include <vector>

#include "linux/control/server.h"
#include "unit/linux/control/control_test_support.h"

using control_test::client;
using control_test::frame_of;
using testing::HasSubstr;

namespace {

control_server* server_at_work = nullptr;
std::function<void()> work;
std::vector<std::string> order;

/// "work" is a change that takes long and serves others meanwhile, until `work` has done what it has to do.
control_json answer(const control_json& request, const control_peer& peer) {
    const std::string call = request["call"];
    order.push_back("begin " + call);
    if (call == "work") {
        work();
    }
    order.push_back("end " + call);
    return control_test::answer_test_call(request, peer);
}

bool is_read(const control_json& request) {
    return request["call"] != "work" && request["call"] != "change";
}

control_json how_far() {
    return {{"work", "testing"}, {"done", 1}, {"total", 2}};
}

class meanwhile_test : public control_test::server_test {
  protected:
    void SetUp() override {
        order.clear();
        limits.progress_time = 0;
    }

    void start() {
        ASSERT_LE(0, sd_event_new(&loop));
        server = control_server_create(control_test::listen_at(control_test::socket_path), {}, limits,
                                       {answer, is_read, how_far});
        ASSERT_EQ(0U, control_server_start(server, loop));
        server_at_work = server;
    }

    /// Serves as the agent does while it works, until `done`.
    static bool serve_until(const std::function<bool()>& done, int milliseconds = 5000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (!done() && std::chrono::steady_clock::now() < end) {
            control_server_serve_meanwhile(server_at_work);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return done();
    }

    /// Carries out "work", whose answer is the last frame; those before it are returned as well.
    std::vector<control_json> carry_out(const std::function<void()>& what, const char* request = R"({"call":"work"})") {
        work = what;
        client worker;
        put_all(worker, frame_of(request));
        std::vector<control_json> frames;
        while (frames.empty() || !frames.back().contains("result")) {
            frames.push_back(answer_to(worker));
            if (frames.back().is_null()) {
                break;
            }
        }
        return frames;
    }
};

TEST_F(meanwhile_test, reads_are_answered_on_old_and_new_connections) {
    start();
    client old_one;
    EXPECT_EQ(ask(old_one, R"({"call":"echo"})")["result"], "done");
    carry_out([&] {
        client new_one;
        new_one.put(frame_of(R"({"call":"echo","number":1})"));
        old_one.put(frame_of(R"({"call":"echo","number":2})"));
        EXPECT_TRUE(serve_until([&] { return new_one.has_answer() && old_one.has_answer(); }));
        EXPECT_EQ(new_one.answer()["data"]["number"], 1);
        EXPECT_EQ(old_one.answer()["data"]["number"], 2);
        old_one.put(frame_of(R"({"call":"echo","number":3})"));
        EXPECT_TRUE(serve_until([&] { return old_one.has_answer(); })) << "again on the same connection";
    });
    EXPECT_EQ(order.back(), "end work");
}

TEST_F(meanwhile_test, a_change_waits_for_the_end_and_is_then_carried_out) {
    start();
    client other;
    carry_out([&] {
        other.put(frame_of(R"({"call":"change"})"));
        EXPECT_FALSE(serve_until([&] { return other.has_answer(); }, 200));
    });
    EXPECT_EQ(answer_to(other)["result"], "done");
    EXPECT_THAT(order, testing::ElementsAre("begin work", "end work", "begin change", "end change"));
    EXPECT_EQ(ask(other, R"({"call":"echo"})")["result"], "done") << "the connection is as good as before";
}

TEST_F(meanwhile_test, who_asked_for_it_is_told_how_far_it_is) {
    start();
    client waiting;
    client silent;
    const std::vector<control_json> frames = carry_out(
        [&] {
            waiting.put(frame_of(R"({"call":"change","progress":true})"));
            silent.put(frame_of(R"({"call":"change"})"));
            EXPECT_TRUE(serve_until([&] { return waiting.has_answer(); }));
            EXPECT_EQ(control_json_text(waiting.answer()),
                      R"({"progress":{"work":"testing","done":1,"total":2,"waiting":true}})");
            EXPECT_FALSE(silent.has_answer());
        },
        R"({"call":"work","progress":true})");
    ASSERT_GE(frames.size(), 2U);
    EXPECT_EQ(control_json_text(frames[0]), R"({"progress":{"work":"testing","done":1,"total":2,"waiting":false}})");
    EXPECT_EQ(answer_to(silent)["result"], "done");
}

TEST_F(meanwhile_test, nobody_is_told_before_the_time_has_come) {
    limits.progress_time = 60'000'000;
    start();
    const std::vector<control_json> frames =
        carry_out([] { serve_until([] { return false; }, 200); }, R"({"call":"work","progress":true})");
    EXPECT_EQ(frames.size(), 1U);
}

TEST_F(meanwhile_test, whose_request_is_carried_out_keeps_its_place) {
    limits.connections = 2;
    start();
    const std::vector<control_json> frames = carry_out([&] {
        std::vector<client> crowd(8);
        for (client& each : crowd) {
            each.put(frame_of(R"({"call":"echo"})"));
            serve_until([&] { return each.has_answer() || each.is_ended(); });
        }
    });
    EXPECT_EQ(frames.back()["result"], "done");
}

TEST_F(meanwhile_test, a_peer_that_reads_no_report_gets_whole_frames_in_the_end) {
    start();
    work = [] {
        for (int turn = 0; turn < 10; turn++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
            control_server_serve_meanwhile(server_at_work);
        }
    };
    client worker;
    const int small = 1;
    setsockopt(worker.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    put_all(worker, frame_of(R"({"call":"work","progress":true})"));
    run_until([] { return !order.empty() && order.back() == "end work"; });
    control_json frame;
    size_t reports = 0;
    while (!(frame = answer_to(worker)).contains("result") && !frame.is_null()) {
        EXPECT_TRUE(frame.contains("progress"));
        reports++;
    }
    EXPECT_GE(reports, 1U);
    EXPECT_EQ(frame["result"], "done");
}

TEST_F(meanwhile_test, others_take_at_most_half_of_the_time) {
    start();
    carry_out([&] {
        client busy;
        const auto begin = std::chrono::steady_clock::now();
        size_t answers = 0;
        busy.put(frame_of(R"({"call":"sleep","milliseconds":50})"));
        serve_until(
            [&] {
                if (busy.has_answer()) {
                    busy.answer();
                    answers++;
                    busy.put(frame_of(R"({"call":"sleep","milliseconds":50})"));
                }
                return false;
            },
            500);
        const auto taken = std::chrono::steady_clock::now() - begin;
        EXPECT_GE(answers, 1U);
        EXPECT_LE(answers * std::chrono::milliseconds(100), taken + std::chrono::milliseconds(100));
    });
}

}  // namespace
