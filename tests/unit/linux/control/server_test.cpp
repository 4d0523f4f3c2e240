#include "linux/control/server.h"

#include <gmock/gmock.h>

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

TEST_F(control_server_test, starts_once) {
    start();
    EXPECT_EQ(control_server_start(server, loop), static_cast<platform_status>(EALREADY));
    expect_others_are_answered();
}

TEST_F(control_server_test, who_connects_before_the_start_is_answered_after_it) {
    ASSERT_LE(0, sd_event_new(&loop));
    server = control_server_create(control_test::listen_at(control_test::socket_path), std::nullopt, limits,
                                   control_test::answer_test_call);
    client early;
    ASSERT_TRUE(early.is_connected());
    early.put(frame_of(R"({"call":"echo"})"));
    EXPECT_FALSE(run_until([&] { return early.has_answer(); }, 50));
    ASSERT_EQ(0U, control_server_start(server, loop));
    EXPECT_EQ(answer_to(early)["result"], "done");
}

TEST_F(control_server_test, a_thousand_silent_connections_block_nobody_and_leave_nothing_behind) {
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
        EXPECT_LE(control_server_connections(server), limits.connections);
        EXPECT_TRUE(run_until([&] { return crowd.front().has_answer(); }));
        const control_json answer = crowd.front().answer();
        EXPECT_EQ(answer["retry"], true);
        EXPECT_THAT(answer.value("message", ""), HasSubstr("too many connections"));
        EXPECT_TRUE(is_dropped(crowd.front()));
        expect_others_are_answered();
    }
    EXPECT_TRUE(run_until([&] { return control_server_connections(server) == 0; }));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(control_server_test, a_thousand_half_frames_block_nobody) {
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
    EXPECT_LE(control_server_connections(server), limits.connections);
}

TEST_F(control_server_test, a_thousand_calls_at_once_are_all_answered) {
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

TEST_F(control_server_test, an_answer_on_its_way_is_the_last_to_make_room) {
    limits.connections = 2;
    start();
    client asking;
    asking.put(frame_of(R"({"call":"large","size":4000000})"));
    EXPECT_TRUE(run_until([&] { return server->answers > 0; }));
    client silent;
    EXPECT_TRUE(run_until([&] { return control_server_connections(server) == 2; }));
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
    // A limit below the highest open descriptor: none can be had.
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
    EXPECT_LT(turns, 1000) << "the loop was spinning";
    EXPECT_EQ(answer_to(peer)["result"], "done");
}

TEST_F(control_server_test, frees_everything_with_connections_in_every_state) {
    const size_t before = open_descriptors();
    start();
    client idle;
    client half;
    half.put("\x01");
    client reading;
    reading.put(frame_of(R"({"call":"large","size":4000000})"));
    EXPECT_TRUE(run_until([&] { return server->answers > 0 && control_server_connections(server) == 3; }));
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
