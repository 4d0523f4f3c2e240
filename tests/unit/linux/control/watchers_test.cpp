// Watchers of the control socket: those that read receive everything, those that do not are limited and delay nobody.
#include <malloc.h>

#include <set>

#include "unit/linux/control/control_test_support.h"
#include "unit/linux/platform_test_support.h"

using control_test::client;
using control_test::frame_of;

namespace {

const std::string watch_call = R"({"call":"watch"})";

using steady = std::chrono::steady_clock;

int milliseconds_since(steady::time_point start) {
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - start).count());
}

class control_watchers_test : public control_test::server_test {
  protected:
    /// What a watcher has received: the numbers of its events, and how many were dropped.
    struct received_events {
        std::vector<int> numbers;
        uint64_t coalesced = 0;
    };

    void begin_watching(client& peer) {
        const size_t before = control_server_watchers(server);
        const control_json answer = ask(peer, watch_call);
        ASSERT_EQ(control_json_text(answer), R"({"result":"done","data":["snapshot"],"watching":true})");
        ASSERT_EQ(control_server_watchers(server), before + 1);
    }

    void publish(int number) {
        control_server_publish(server, "state", R"({"number":)" + std::to_string(number) + "}");
    }

    void listen(client& peer, received_events& received) {
        while (peer.has_answer()) {
            const control_json frame = peer.answer();
            for (const control_json& event : frame["data"]) {
                received.numbers.push_back(event["number"].get<int>());
            }
            received.coalesced += frame.value("coalesced", 0);
        }
    }

    static std::vector<int> numbers_to(int last) {
        std::vector<int> numbers;
        for (int number = 1; number <= last; number++) {
            numbers.push_back(number);
        }
        return numbers;
    }
};

TEST_F(control_watchers_test, events_follow_the_answer) {
    start();
    client peer;
    begin_watching(peer);
    publish(1);
    EXPECT_EQ(control_json_text(answer_to(peer)), R"({"data":[{"number":1}]})");
    publish(2);
    publish(3);
    publish(4);
    EXPECT_EQ(control_json_text(answer_to(peer)), R"({"data":[{"number":2}]})");
    EXPECT_EQ(control_json_text(answer_to(peer)), R"({"data":[{"number":3},{"number":4}]})");
}

TEST_F(control_watchers_test, no_event_is_lost_between_the_answer_and_the_watch) {
    start();
    client peer;
    peer.put(frame_of(watch_call));
    ASSERT_TRUE(run_until([&] { return control_server_watchers(server) == 1; }));
    publish(1);
    EXPECT_EQ(answer_to(peer)["watching"], true);
    EXPECT_EQ(control_json_text(answer_to(peer)), R"({"data":[{"number":1}]})");
}

TEST_F(control_watchers_test, other_connections_receive_no_events) {
    start();
    client watcher;
    client other;
    begin_watching(watcher);
    EXPECT_EQ(ask(other, R"({"call":"echo"})")["result"], "done");
    publish(1);
    EXPECT_EQ(answer_to(watcher)["data"][0]["number"], 1);
    EXPECT_FALSE(other.has_answer());
    EXPECT_EQ(ask(other, R"({"call":"echo"})")["result"], "done");
}

TEST_F(control_watchers_test, a_silent_watcher_is_not_idle) {
    limits.idle_time = 100'000;
    limits.answer_time = 100'000;
    limits.watch_time = 100'000;
    start();
    client watcher;
    begin_watching(watcher);
    client idle;
    ASSERT_TRUE(run_until([&] { return server->connections.size() == 2; }));
    ASSERT_TRUE(is_dropped(idle));
    const auto begin = steady::now();
    run_until([&] { return milliseconds_since(begin) > 400; });
    EXPECT_FALSE(watcher.is_ended());
    publish(1);
    EXPECT_EQ(answer_to(watcher)["data"][0]["number"], 1);
}

TEST_F(control_watchers_test, a_watcher_keeps_its_slot_when_others_need_one) {
    limits.connections = 3;
    start();
    client watcher;
    begin_watching(watcher);
    for (int count = 0; count < 10; count++) {
        client other;
        EXPECT_EQ(ask(other, R"({"call":"echo"})")["result"], "done");
    }
    std::vector<client> crowd(10);
    EXPECT_TRUE(run_until([&] { return crowd[6].has_answer(); }));
    EXPECT_FALSE(watcher.is_ended());
    publish(1);
    EXPECT_EQ(answer_to(watcher)["data"][0]["number"], 1);
}

TEST_F(control_watchers_test, the_number_of_watchers_is_limited) {
    limits.watchers = 2;
    start();
    client first;
    client second;
    begin_watching(first);
    begin_watching(second);
    client third;
    const control_json refused = ask(third, watch_call);
    EXPECT_EQ(refused["result"], "failed");
    EXPECT_EQ(refused["message"], "too many watchers: the limit is 2");
    // It is an ordinary connection.
    EXPECT_EQ(ask(third, R"({"call":"echo"})")["result"], "done");
    first.hang_up();
    ASSERT_TRUE(run_until([&] { return control_server_watchers(server) == 1; }));
    EXPECT_EQ(ask(third, watch_call)["result"], "done");
}

TEST_F(control_watchers_test, the_watch_ends_when_the_peer_hangs_up_or_sends_something) {
    start();
    client gone;
    client finished;
    client talkative;
    begin_watching(gone);
    begin_watching(finished);
    begin_watching(talkative);
    gone.hang_up();
    EXPECT_TRUE(run_until([&] { return control_server_watchers(server) == 2; }));
    finished.end_output();
    EXPECT_TRUE(is_dropped(finished));
    talkative.put(frame_of(watch_call));
    EXPECT_TRUE(is_dropped(talkative));
    EXPECT_EQ(server->connections.size(), 0U);
    publish(1);
    EXPECT_EQ(server->answers, 0U);
}

TEST_F(control_watchers_test, a_peer_that_hangs_up_with_pending_events_is_removed) {
    start();
    client gone;
    begin_watching(gone);
    publish(1);
    publish(2);
    gone.hang_up();
    EXPECT_TRUE(run_until([&] { return server->connections.size() == 0; }));
    EXPECT_EQ(server->answers, 0U);
}

TEST_F(control_watchers_test, the_watch_ends_with_the_server) {
    start();
    client watcher;
    begin_watching(watcher);
    publish(1);
    run_once();
    control_server_free(std::exchange(server, nullptr));
    ASSERT_TRUE(watcher.has_answer());
    EXPECT_EQ(watcher.answer()["data"][0]["number"], 1);
    EXPECT_TRUE(watcher.is_ended());
}

TEST_F(control_watchers_test, a_hundred_thousand_events_reach_a_reader_and_cost_nothing_otherwise) {
    constexpr int events = 100'000;
    start();
    client reader;
    client deaf;
    begin_watching(reader);
    begin_watching(deaf);
    const size_t memory_before = mallinfo2().uordblks;
    size_t memory_most = 0;
    int slowest = 0;
    received_events received;
    for (int number = 1; number <= events; number++) {
        publish(number);
        if (number % 100 == 0) {
            const auto begin = steady::now();
            run_once(0);
            slowest = std::max(slowest, milliseconds_since(begin));
            listen(reader, received);
            memory_most = std::max(memory_most, mallinfo2().uordblks);
        }
    }
    run_until([&] {
        listen(reader, received);
        return received.numbers.size() == events;
    });
    EXPECT_EQ(received.numbers, numbers_to(events));
    EXPECT_EQ(received.coalesced, 0U);
    // The reader's list of numbers counts, too.
    EXPECT_LT(memory_most - memory_before, 3 * limits.watch_queue + received.numbers.capacity() * 2 * sizeof(int));
    EXPECT_LT(slowest, 500);
    expect_others_are_answered();
    // When it finally reads, it receives the latest event and the number of dropped ones.
    received_events late;
    EXPECT_TRUE(run_until([&] {
        listen(deaf, late);
        return !late.numbers.empty() && late.numbers.back() == events;
    }));
    EXPECT_LT(late.numbers.size(), 50'000U);
    EXPECT_EQ(late.numbers.size() + late.coalesced, static_cast<size_t>(events));
    EXPECT_TRUE(std::is_sorted(late.numbers.begin(), late.numbers.end()));
    EXPECT_EQ(control_server_watchers(server), 2U);
}

TEST_F(control_watchers_test, a_watcher_that_never_reads_is_dropped_and_logged) {
    limits.watch_time = 300'000;
    platform_test::journal_listener journal;
    start();
    client reader;
    client deaf;
    begin_watching(reader);
    begin_watching(deaf);
    const auto begin = steady::now();
    received_events received;
    int number = 0;
    EXPECT_TRUE(run_until([&] {
        for (int count = 0; count < 200; count++) {
            publish(++number);
        }
        listen(reader, received);
        return control_server_watchers(server) == 1;
    }));
    EXPECT_GT(milliseconds_since(begin), 250);
    EXPECT_TRUE(run_until([&] {
        listen(reader, received);
        return received.numbers.size() == static_cast<size_t>(number);
    }));
    EXPECT_NE(journal.messages().find("has not read its events for"), std::string::npos);
}

TEST_F(control_watchers_test, a_watcher_that_reads_slowly_is_not_dropped) {
    limits.watch_time = 300'000;
    start();
    client slow;
    begin_watching(slow);
    const auto begin = steady::now();
    int number = 0;
    run_until([&] {
        for (int count = 0; count < 200; count++) {
            publish(++number);
        }
        // A socket becomes writable only when a good part of its buffer is free.
        slow.take(20'000);
        if (slow.has_answer()) {
            slow.answer();
        }
        return milliseconds_since(begin) > 1000;
    });
    EXPECT_EQ(control_server_watchers(server), 1U);
}

TEST_F(control_watchers_test, an_event_larger_than_the_queue_ends_the_watch) {
    limits.watch_queue = 1000;
    start();
    client watcher;
    begin_watching(watcher);
    control_server_publish(server, "state", '"' + std::string(2000, 'x') + '"');
    EXPECT_TRUE(is_dropped(watcher));
    EXPECT_EQ(server->connections.size(), 0U);
}

}  // namespace
