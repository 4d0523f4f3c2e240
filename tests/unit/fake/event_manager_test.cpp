#include "platform/event_manager.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "fake/fake_platform.h"
#include "platform/managed_timer.h"
#include "platform/namespace_message.h"

namespace {

using testing::ElementsAre;

class fake_event_manager_test : public testing::Test {
  protected:
    fake_event_manager_test() {
        EXPECT_EQ(event_manager_create("/dev/test", &manager), 0);
        seen.clear();
    }

    /// An endless loop, as in a program.
    void run() {
        event_manager_event event = {};
        for (;;) {
            if (event_manager_block(manager, &event) == 0) {
                event_manager_dispatch(manager, &event);
            } else {
                seen.push_back("errno " + std::to_string(errno));
            }
        }
    }

    event_manager* manager = nullptr;
    static inline std::vector<std::string> seen;
};

TEST_F(fake_event_manager_test, the_loop_delivers_the_queue_and_then_ends) {
    fake_platform::queue_event([] { seen.push_back("first"); });
    fake_platform::queue_block_failure(EINTR);
    fake_platform::queue_event([] { seen.push_back("second"); });
    fake_platform::throw_at_loop_end();
    EXPECT_THROW(run(), fake_platform::loop_ended);
    EXPECT_THAT(seen, ElementsAre("first", "errno " + std::to_string(EINTR), "second"));
}

TEST_F(fake_event_manager_test, the_end_of_the_loop_ends_the_process) {
    EXPECT_EXIT(run(), testing::ExitedWithCode(fake_platform::loop_end_status), "");
}

TEST_F(fake_event_manager_test, the_end_of_the_loop_may_queue_more) {
    fake_platform::set_loop_end([] {
        fake_platform::queue_event([] { seen.push_back("late"); });
        fake_platform::throw_at_loop_end();
    });
    EXPECT_THROW(run(), fake_platform::loop_ended);
    EXPECT_THAT(seen, ElementsAre("late"));
}

TEST_F(fake_event_manager_test, failed_creation_returns_errno_and_leaves_the_handle) {
    event_manager* other = manager;
    fake_platform::fail("event_manager_create", EMFILE);
    EXPECT_EQ(event_manager_create("/dev/test", &other), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(other, manager);
    fake_platform::fail("event_manager_block", EBADF, 1);
    event_manager_event event = {};
    EXPECT_EQ(event_manager_block(manager, &event), -1);
    EXPECT_EQ(errno, EBADF);
}

void answer_with_zeros(event_message* message, void* context) {
    size_t size = 0;
    const auto* body = static_cast<const namespace_message*>(event_message_body(message, &size));
    EXPECT_EQ(size, sizeof *body);
    static_cast<std::vector<std::string>*>(context)->push_back(std::to_string(body->code) + " " + body->name);
    const char zeros[NAMESPACE_REPLY_SIZE] = {};
    EXPECT_EQ(event_message_reply(message, zeros, sizeof zeros), PLATFORM_OK);
}

TEST_F(fake_event_manager_test, messages_reach_their_handler_and_are_answered) {
    EXPECT_FALSE(fake_platform::send_namespace_message(NAMESPACE_CREATED, "vrf-red").handled);
    EXPECT_EQ(event_manager_attach_message(manager, NAMESPACE_MESSAGE, answer_with_zeros, &seen), PLATFORM_OK);
    EXPECT_EQ(event_manager_attach_message(manager, NAMESPACE_MESSAGE, answer_with_zeros, &seen),
              platform_status{EEXIST});
    const fake_platform::message_reply reply = fake_platform::send_namespace_message(NAMESPACE_CREATED, "vrf-red");
    EXPECT_TRUE(reply.handled);
    EXPECT_EQ(reply.replies, 1u);
    EXPECT_EQ(reply.bytes, std::string(NAMESPACE_REPLY_SIZE, '\0'));
    EXPECT_THAT(seen, ElementsAre("2 vrf-red"));
    EXPECT_EQ(fake_platform::count_calls("event_manager_attach_message(0x50d8085)"), 2u);
}

TEST_F(fake_event_manager_test, a_second_reply_is_counted) {
    event_manager_attach_message(
        manager, 5,
        [](event_message* message, void*) {
            EXPECT_EQ(event_message_reply(message, "a", 1), PLATFORM_OK);
            EXPECT_EQ(event_message_reply(message, "b", 1), platform_status{EALREADY});
        },
        nullptr);
    fake_platform::queue_message(5, "body");
    EXPECT_EQ(fake_platform::dispatch_queued(), 1u);
    EXPECT_EQ(fake_platform::last_reply().replies, 2u);
}

TEST_F(fake_event_manager_test, descriptors_reach_their_handlers) {
    int channel[2];
    ASSERT_EQ(pipe(channel), 0);
    const auto handler = [](int fd, uint32_t conditions, void* context) {
        char byte = 0;
        EXPECT_EQ(read(fd, &byte, 1), 1);
        static_cast<std::vector<std::string>*>(context)->push_back(std::to_string(conditions) + byte);
    };
    EXPECT_EQ(event_manager_attach_fd(manager, channel[0], EVENT_MANAGER_READ, handler, &seen), PLATFORM_OK);
    EXPECT_EQ(fake_platform::dispatch_ready_fds(), 0u);
    ASSERT_EQ(write(channel[1], "abc", 3), 3);
    EXPECT_EQ(fake_platform::dispatch_ready_fds(), 1u);
    fake_platform::signal_fd(channel[0]);
    fake_platform::queue_fd(channel[0]);
    fake_platform::dispatch_queued();
    fake_platform::signal_fd(channel[0], EVENT_MANAGER_WRITE);
    EXPECT_THAT(seen, ElementsAre("1a", "1b", "1c"));
    close(channel[0]);
    close(channel[1]);
}

class fake_timer_test : public fake_event_manager_test {
  protected:
    fake_timer_test() {
        EXPECT_EQ(managed_timer_attach(manager, expired, &seen, &handle), PLATFORM_OK);
        EXPECT_EQ(managed_timer_leaf_create(handle, &leaf), PLATFORM_OK);
    }

    static void expired(managed_timer_leaf*, void* context) {
        static_cast<std::vector<std::string>*>(context)->push_back("expired");
    }

    int32_t handle = -1;
    managed_timer_leaf* leaf = nullptr;
};

TEST_F(fake_timer_test, a_timer_expires_once_when_it_is_due) {
    EXPECT_EQ(managed_timer_leaf_start(leaf, 120), PLATFORM_OK);
    EXPECT_EQ(fake_platform::running_timers(), 1u);
    fake_platform::advance_time(119);
    EXPECT_EQ(seen.size(), 0u);
    fake_platform::advance_time(1);
    fake_platform::advance_time(1000);
    EXPECT_EQ(seen.size(), 1u);
    EXPECT_EQ(fake_platform::running_timers(), 0u);
}

TEST_F(fake_timer_test, a_restarted_timer_starts_again_and_a_stopped_one_does_not_expire) {
    managed_timer_leaf_start(leaf, 10);
    fake_platform::advance_time(9);
    managed_timer_leaf_start(leaf, 10);
    fake_platform::advance_time(9);
    EXPECT_EQ(seen.size(), 0u);
    managed_timer_leaf_stop(leaf);
    managed_timer_leaf_stop(leaf);
    fake_platform::advance_time(100);
    EXPECT_EQ(seen.size(), 0u);
}

TEST_F(fake_timer_test, a_detached_handler_is_not_called) {
    managed_timer_leaf_start(leaf, 1);
    EXPECT_EQ(managed_timer_detach(handle), PLATFORM_OK);
    EXPECT_EQ(managed_timer_detach(handle), platform_status{EINVAL});
    EXPECT_EQ(managed_timer_detach(-1), platform_status{EINVAL});
    EXPECT_EQ(managed_timer_leaf_create(handle, &leaf), platform_status{EINVAL});
    fake_platform::advance_time(2);
    EXPECT_EQ(seen.size(), 0u);
}

TEST_F(fake_timer_test, timers_expire_in_order_and_may_free_themselves) {
    int32_t other = -1;
    const auto free_it = [](managed_timer_leaf* expired_leaf, void*) {
        seen.push_back("freed");
        managed_timer_leaf_free(expired_leaf);
    };
    managed_timer_attach(manager, free_it, nullptr, &other);
    managed_timer_leaf* second = nullptr;
    managed_timer_leaf_create(other, &second);
    managed_timer_leaf_start(leaf, 5);
    managed_timer_leaf_start(second, 3);
    fake_platform::advance_time(10);
    EXPECT_THAT(seen, ElementsAre("freed", "expired"));
    managed_timer_leaf_free(leaf);
    managed_timer_leaf_free(nullptr);
}

}  // namespace
