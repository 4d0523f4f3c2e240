#include "linux/control/event_queue.h"

#include <gtest/gtest.h>

namespace {

constexpr size_t plenty = 1'000'000;
/// The subject of the events in these tests.
const size_t event_size = control_event_size({"a", "11"});

bool add(control_event_queue& queue, const char* subject, const std::string& text, size_t size_max = plenty) {
    return control_event_add(queue, std::make_shared<const control_event>(control_event{subject, text}), size_max);
}

TEST(control_event_queue, returns_events_together_and_in_order) {
    control_event_queue queue;
    EXPECT_TRUE(add(queue, "a", "1"));
    EXPECT_TRUE(add(queue, "b", "2"));
    EXPECT_TRUE(add(queue, "a", "3"));
    EXPECT_EQ(queue.size, 3 * control_event_size({"a", "1"}));
    EXPECT_EQ(control_event_take(queue, plenty), R"({"data":[1,2,3]})");
    EXPECT_TRUE(queue.events.empty());
    EXPECT_EQ(queue.size, 0U);
}

TEST(control_event_queue, a_frame_contains_what_fits_and_at_least_one_event) {
    control_event_queue queue;
    const std::string text(40, '7');
    for (int count = 0; count < 3; count++) {
        add(queue, "a", text);
    }
    EXPECT_EQ(control_event_take(queue, 100), R"({"data":[)" + text + "," + text + "]}");
    EXPECT_EQ(control_event_take(queue, 10), R"({"data":[)" + text + "]}");
    EXPECT_TRUE(queue.events.empty());
}

TEST(control_event_queue, a_full_queue_keeps_the_latest_of_each_subject_and_reports_it_once) {
    control_event_queue queue;
    add(queue, "a", "11", 4 * event_size);
    add(queue, "b", "22", 4 * event_size);
    add(queue, "a", "33", 4 * event_size);
    add(queue, "a", "44", 4 * event_size);
    EXPECT_EQ(queue.events.size(), 4U);
    EXPECT_TRUE(add(queue, "b", "55", 4 * event_size));
    EXPECT_EQ(queue.size, 2 * event_size);
    EXPECT_EQ(control_event_take(queue, plenty), R"({"data":[44,55],"coalesced":3})");
    add(queue, "a", "66");
    EXPECT_EQ(control_event_take(queue, plenty), R"({"data":[66]})");
}

TEST(control_event_queue, counts_dropped_events_each_time) {
    control_event_queue queue;
    for (int number = 100; number < 1000; number++) {
        EXPECT_TRUE(add(queue, "a", std::to_string(number), 10 * event_size));
        EXPECT_LE(queue.size, 10 * event_size);
    }
    const uint64_t kept = queue.events.size();
    EXPECT_EQ(queue.coalesced, 900U - kept);
    EXPECT_EQ(queue.events.back()->text, "999");
}

TEST(control_event_queue, refuses_an_event_that_is_too_large) {
    control_event_queue queue;
    const std::string text(100, '7');
    EXPECT_TRUE(add(queue, "a", text, 2 * event_size + 100));
    EXPECT_FALSE(add(queue, "b", text, 2 * event_size + 100));
    control_event_queue empty;
    EXPECT_FALSE(add(empty, "a", text, event_size));
}

}  // namespace
