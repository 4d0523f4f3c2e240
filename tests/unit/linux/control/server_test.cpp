#include "linux/control/server.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <chrono>
#include <vector>

#include "unit/linux/control/control_test_support.h"

using control_test::allow_descriptors;
using control_test::client;
using control_test::frame_of;
using control_test::header_announcing;
using control_test::open_descriptors;
using testing::HasSubstr;

namespace {

class control_server_test : public control_test::server_test {};

/// With clients of an ordinary user who may use the socket.
class control_server_member_test : public control_server_test {
  protected:
    void SetUp() override {
        if (!control_test::other_users_exist()) {
            GTEST_SKIP() << "there is no other user in this user namespace; root's run has them";
        }
        allow_descriptors(4096);
    }

    void start_for_members() {
        start();
        server->groups.readers = control_test::operators;
        ASSERT_EQ(0, chmod(control_test::socket_path, 0666));
    }

    static client member() {
        EXPECT_EQ(0, setegid(control_test::operators));
        EXPECT_EQ(0, seteuid(control_test::somebody));
        client connected;
        EXPECT_EQ(0, seteuid(0));
        EXPECT_EQ(0, setegid(0));
        EXPECT_TRUE(connected.is_connected());
        return connected;
    }
};

TEST_F(control_server_test, starts_once) {
    start();
    EXPECT_EQ(control_server_start(server, loop), static_cast<platform_status>(EALREADY));
    expect_others_are_answered();
}

TEST_F(control_server_test, peers_that_connect_before_the_start_are_answered_after_it) {
    ASSERT_LE(0, sd_event_new(&loop));
    server = control_server_create(control_test::listen_at(control_test::socket_path), {}, limits,
                                   {control_test::answer_test_call});
    client early;
    ASSERT_TRUE(early.is_connected());
    early.put(frame_of(R"({"call":"echo"})"));
    EXPECT_FALSE(run_until([&] { return early.has_answer(); }, 50));
    ASSERT_EQ(0U, control_server_start(server, loop));
    EXPECT_EQ(answer_to(early)["result"], "done");
}

TEST_F(control_server_test, a_thousand_silent_connections_block_nobody_and_leak_nothing) {
    allow_descriptors(4096);
    start();
    const size_t before = open_descriptors();
    {
        std::vector<client> crowd;
        for (int count = 0; count < 1000; count++) {
            crowd.emplace_back();
            ASSERT_TRUE(crowd.back().is_connected()) << count;
        }
        expect_others_are_answered();
        EXPECT_LE(server->connections.size(), limits.connections);
        EXPECT_TRUE(run_until([&] { return crowd.front().has_answer(); }));
        const control_json answer = crowd.front().answer();
        EXPECT_EQ(answer["retry"], true);
        EXPECT_THAT(answer.value("message", ""), HasSubstr("too many connections"));
        EXPECT_TRUE(is_dropped(crowd.front()));
        expect_others_are_answered();
    }
    EXPECT_TRUE(run_until([&] { return server->connections.size() == 0; }));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(control_server_test, a_thousand_incomplete_frames_block_nobody) {
    allow_descriptors(4096);
    start();
    std::vector<client> crowd;
    for (int count = 0; count < 1000; count++) {
        crowd.emplace_back();
        crowd.back().put(header_announcing(60'000) + std::string(1000, 'x'));
        if (count % 100 == 0) {
            expect_others_are_answered();
        }
    }
    expect_others_are_answered();
    EXPECT_LE(server->connections.size(), limits.connections);
}

TEST_F(control_server_test, a_thousand_concurrent_calls_are_all_answered) {
    allow_descriptors(4096);
    start();
    std::vector<client> crowd;
    for (int count = 0; count < 1000; count++) {
        crowd.emplace_back();
        crowd.back().put(frame_of(R"({"call":"echo"})"));
    }
    for (client& peer : crowd) {
        EXPECT_EQ(answer_to(peer)["result"], "done");
    }
}

TEST_F(control_server_test, connections_with_a_pending_answer_are_dropped_last) {
    limits.connections = 2;
    start();
    client asking;
    asking.put(frame_of(R"({"call":"large","size":4000000})"));
    EXPECT_TRUE(run_until([&] { return server->answers > 0; }));
    client silent;
    EXPECT_TRUE(run_until([&] { return server->connections.size() == 2; }));
    expect_others_are_answered();
    EXPECT_TRUE(silent.is_ended() || silent.has_answer());
    EXPECT_EQ(answer_to(asking)["result"], "done");
}

TEST_F(control_server_test, waits_when_the_process_is_out_of_descriptors) {
    start();
    client peer;
    ASSERT_TRUE(peer.is_connected());
    peer.put(frame_of(R"({"call":"echo"})"));
    rlimit before = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    // With a limit below the highest open descriptor no new one can be opened.
    const rlimit none = {3, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    int turns = 0;
    const bool answered = run_until(
        [&] {
            turns++;
            return peer.has_answer();
        },
        400);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_FALSE(answered);
    EXPECT_LT(turns, 1000) << "the loop must not spin";
    EXPECT_EQ(answer_to(peer)["result"], "done");
}

TEST_F(control_server_test, idle_connections_give_way_when_descriptors_are_short) {
    allow_descriptors(4096);
    start();
    std::vector<client> crowd;
    for (int count = 0; count < 300; count++) {
        crowd.emplace_back();
    }
    constexpr rlim_t available = 20;
    const rlimit few = {static_cast<rlim_t>(crowd.back().fd()) + 1 + available, 4096};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    EXPECT_TRUE(run_until([&] { return crowd.front().has_answer(); }));
    client late;
    late.put(frame_of(R"({"call":"echo"})"));
    EXPECT_TRUE(run_until([&] {
        EXPECT_EQ(0, sd_event_source_get_enabled(server->resume_source, nullptr)) << "accepting was paused";
        return late.has_answer();
    }));
    EXPECT_EQ(late.answer().value("result", ""), "done");
    EXPECT_GT(server->connections.size(), 5U);
    std::vector<int> others;
    while (others.size() < 8) {
        others.push_back(dup(0));
        EXPECT_LE(0, others.back()) << "no descriptor is left for the agent's own work";
    }
    for (const int fd : others) {
        close(fd);
    }
}

TEST_F(control_server_member_test, root_does_not_wait_behind_members) {
    start_for_members();
    std::vector<client> crowd;
    for (int count = 0; count < 10; count++) {
        crowd.push_back(member());
        for (int call = 0; call < 10; call++) {
            crowd.back().put(frame_of(R"({"call":"sleep","milliseconds":10})"));
        }
    }
    EXPECT_TRUE(run_until([&] { return server->connections.size() == crowd.size(); }));
    client root;
    root.put(frame_of(R"({"call":"echo"})"));
    const unsigned before = control_test::sleeps;
    EXPECT_EQ(answer_to(root)["uid"], 0U);
    EXPECT_LE(control_test::sleeps - before, crowd.size()) << "of " << 10 * crowd.size() << " calls that wait";
}

TEST_F(control_server_member_test, members_make_room_before_root_does) {
    limits.connections = 4;
    start_for_members();
    client root;
    EXPECT_TRUE(run_until([&] { return server->connections.size() == 1; }));
    std::vector<client> crowd;
    for (int count = 0; count < 20; count++) {
        crowd.push_back(member());
    }
    EXPECT_EQ(answer_to(crowd.front())["retry"], true);
    EXPECT_EQ(ask(root, R"({"call":"echo"})")["uid"], 0U);
    EXPECT_EQ(ask(crowd.back(), R"({"call":"echo"})")["uid"], control_test::somebody);
}

TEST_F(control_server_member_test, members_leave_memory_for_roots_calls) {
    limits.large_frames = limits.answers = 1'000'000;
    start_for_members();
    client greedy = member();
    greedy.put(header_announcing(400'000) + "x");
    EXPECT_TRUE(run_until([&] { return server->large_frames == 400'000; }));
    client second = member();
    second.put(header_announcing(200'000) + "x");
    EXPECT_EQ(answer_to(second)["retry"], true);
    client root;
    EXPECT_EQ(ask(root, R"({"call":"echo","pad":")" + std::string(300'000, 'x') + "\"}")["result"], "done");
}

TEST_F(control_server_test, frees_connections_in_every_state) {
    const size_t before = open_descriptors();
    start();
    client idle;
    client half;
    half.put("\x01");
    client reading;
    reading.put(frame_of(R"({"call":"large","size":4000000})"));
    EXPECT_TRUE(run_until([&] { return server->answers > 0 && server->connections.size() == 3; }));
    control_server_free(server);
    server = nullptr;
    EXPECT_TRUE(idle.is_ended());
    idle.hang_up();
    half.hang_up();
    reading.hang_up();
    loop = sd_event_unref(loop);
    EXPECT_EQ(open_descriptors(), before);
    control_server_free(nullptr);
}

}  // namespace
