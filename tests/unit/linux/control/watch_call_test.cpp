#include <malloc.h>

#include <algorithm>

#include "linux/control/control.h"
#include "linux/datastore/telemetry_producer_internal.h"
#include "platform/telemetry_producer.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/control/control_test_support.h"
#include "unit/linux/datastore/telemetry_test_support.h"

using control_test::client;
using control_test::frame_of;
using telemetry_test::event_path;
using telemetry_test::fill_state;
using telemetry_test::server_state;

namespace {

constexpr char socket_path[] = "/tmp/control_watch_call_test.sock";

class control_watch_call_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        telemetry_test::register_state_record();
        ASSERT_EQ(datastore_provider_register(telemetry_test::tree_path, fill_state, nullptr, &state, &provider),
                  PLATFORM_OK);
        ASSERT_EQ(telemetry_producer_init("OCSSH", event_path, nullptr), PLATFORM_OK);
        ASSERT_LE(0, sd_event_new(&loop));
        ASSERT_EQ(control_open(socket_path), PLATFORM_OK);
        ASSERT_EQ(control_start(loop), PLATFORM_OK);
    }
    void TearDown() override {
        control_close();
        sd_event_unref(loop);
        EXPECT_EQ(datastore_provider_unregister(provider), PLATFORM_OK);
        calls_test::TearDown();
    }

    control_json answer_to(client& peer) {
        for (int turn = 0; turn < 3000 && !peer.has_answer() && !peer.is_ended(); turn++) {
            EXPECT_LE(0, sd_event_run(loop, 1000));
        }
        EXPECT_TRUE(peer.has_answer());
        return peer.has_answer() ? peer.answer() : control_json();
    }

    void publish(uint16_t timeout) {
        state.timeout = timeout;
        EXPECT_EQ(telemetry_producer_publish(event_path, fill_state, &state), PLATFORM_OK);
    }

    static uint16_t timeout_of(const control_json& notification) {
        return notification["update"][2]["val"].get<uint16_t>();
    }

    server_state state;
    datastore_provider* provider = nullptr;
    sd_event* loop = nullptr;
};

TEST_F(control_watch_call_test, sends_the_state_in_force_and_then_the_changes) {
    client watcher(socket_path);
    watcher.put(frame_of(R"({"call":"watch"})"));
    const control_json first = answer_to(watcher);
    EXPECT_EQ(first["result"], "done");
    EXPECT_EQ(control_json_text(first["model"]), R"({"name":"openconfig-system","revision":"2019-03-15"})");
    ASSERT_EQ(first["data"].size(), 1U);
    EXPECT_EQ(first["data"][0]["prefix"], "/openconfig-system:system/ssh-server/state");
    EXPECT_EQ(timeout_of(first["data"][0]), 30);
    publish(45);
    const control_json change = answer_to(watcher);
    ASSERT_EQ(change["data"].size(), 1U);
    EXPECT_EQ(timeout_of(change["data"][0]), 45);
    EXPECT_LT(first["data"][0]["timestamp"].get<uint64_t>(), change["data"][0]["timestamp"].get<uint64_t>());
}

TEST_F(control_watch_call_test, every_watcher_receives_every_event) {
    client first(socket_path);
    client second(socket_path);
    for (client* watcher : {&first, &second}) {
        watcher->put(frame_of(R"({"call":"watch"})"));
        answer_to(*watcher);
    }
    for (const uint16_t timeout : {5, 6, 7}) {
        publish(timeout);
        EXPECT_EQ(timeout_of(answer_to(first)["data"][0]), timeout);
        EXPECT_EQ(timeout_of(answer_to(second)["data"][0]), timeout);
    }
}

TEST_F(control_watch_call_test, without_watchers_no_record_is_made) {
    publish(5);
    EXPECT_EQ(state.filled, 0);
    {
        client watcher(socket_path);
        watcher.put(frame_of(R"({"call":"watch"})"));
        answer_to(watcher);
    }
    for (int turn = 0; turn < 20; turn++) {
        ASSERT_LE(0, sd_event_run(loop, 1000));
    }
    publish(6);
    const int filled = state.filled;
    publish(7);
    publish(8);
    EXPECT_EQ(state.filled, filled);
    client again(socket_path);
    again.put(frame_of(R"({"call":"watch"})"));
    EXPECT_EQ(timeout_of(answer_to(again)["data"][0]), 8);
    publish(9);
    EXPECT_EQ(timeout_of(answer_to(again)["data"][0]), 9);
}

TEST_F(control_watch_call_test, a_state_that_cannot_be_read_is_sent_with_the_first_event) {
    state.result = DATASTORE_NOTHING_TO_ENCODE;
    client watcher(socket_path);
    watcher.put(frame_of(R"({"call":"watch"})"));
    EXPECT_EQ(control_json_text(answer_to(watcher)["data"]), "[]");
    state.result = PLATFORM_OK;
    publish(5);
    EXPECT_EQ(timeout_of(answer_to(watcher)["data"][0]), 5);
}

TEST_F(control_watch_call_test, a_hundred_thousand_events_for_a_watcher_that_never_reads) {
    constexpr uint32_t events = 100'000;
    client reader(socket_path);
    client deaf(socket_path);
    for (client* watcher : {&reader, &deaf}) {
        watcher->put(frame_of(R"({"call":"watch"})"));
        answer_to(*watcher);
    }
    uint32_t received = 0;
    uint16_t latest = 0;
    const auto listen = [&] {
        while (reader.has_answer()) {
            const control_json frame = reader.answer();
            received += static_cast<uint32_t>(frame["data"].size());
            latest = timeout_of(frame["data"].back());
            EXPECT_FALSE(frame.contains("coalesced"));
        }
    };
    malloc_trim(0);
    const size_t before = mallinfo2().uordblks;
    size_t most = before;
    for (uint32_t event = 1; event <= events; event++) {
        publish(static_cast<uint16_t>(event));
        if (event % 50 == 0) {
            ASSERT_LE(0, sd_event_run(loop, 0));
            listen();
            most = std::max(most, mallinfo2().uordblks);
        }
    }
    for (int turn = 0; turn < 5000 && received < events; turn++) {
        ASSERT_LE(0, sd_event_run(loop, 1000));
        listen();
    }
    EXPECT_EQ(received, events);
    EXPECT_EQ(latest, static_cast<uint16_t>(events));
    EXPECT_LT(most - before, 2'000'000U);
}

TEST_F(control_watch_call_test, the_watch_ends_with_the_agent) {
    client watcher(socket_path);
    watcher.put(frame_of(R"({"call":"watch"})"));
    answer_to(watcher);
    control_close();
    EXPECT_TRUE(watcher.is_ended());
    publish(5);
}

}  // namespace
