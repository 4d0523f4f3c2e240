#include "platform/event_manager.h"

#include <fcntl.h>
#include <signal.h>

#include <vector>

#include "unit/linux/platform_test_support.h"

using platform_test::journal_listener;
using platform_test::output_of;

namespace {

constexpr uint32_t code = 0x1234;

class event_manager_test : public platform_test::loop_test {
  protected:
    void SetUp() override {
        loop_test::SetUp();
        ASSERT_EQ(0, pipe2(pipe_fds, O_CLOEXEC | O_NONBLOCK));
    }
    void TearDown() override {
        close(pipe_fds[0]);
        close(pipe_fds[1]);
        loop_test::TearDown();
    }

    int pipe_fds[2] = {};
};

struct fd_calls {
    std::vector<uint32_t> conditions;
    bool read_it = true;
};

void note_fd(int fd, uint32_t conditions, void* context) {
    auto* calls = static_cast<fd_calls*>(context);
    calls->conditions.push_back(conditions);
    char byte = 0;
    if (calls->read_it) {
        EXPECT_LE(0, read(fd, &byte, 1));
    }
}

TEST_F(event_manager_test, calls_the_handler_of_a_readable_descriptor) {
    fd_calls calls;
    ASSERT_EQ(0u, event_manager_attach_fd(manager, pipe_fds[0], EVENT_MANAGER_READ, note_fd, &calls));
    ASSERT_EQ(1, write(pipe_fds[1], "x", 1));
    EXPECT_TRUE(run_until([&] { return !calls.conditions.empty(); }));
    EXPECT_EQ(std::vector<uint32_t>{EVENT_MANAGER_READ}, calls.conditions);
}

TEST_F(event_manager_test, calls_the_handler_of_a_writable_descriptor) {
    fd_calls calls;
    calls.read_it = false;
    ASSERT_EQ(0u, event_manager_attach_fd(manager, pipe_fds[1], EVENT_MANAGER_WRITE, note_fd, &calls));
    EXPECT_TRUE(run_until([&] { return !calls.conditions.empty(); }));
    EXPECT_EQ(EVENT_MANAGER_WRITE, static_cast<int>(calls.conditions.front()));
}

TEST_F(event_manager_test, reports_a_hang_up_as_the_requested_condition) {
    fd_calls calls;
    ASSERT_EQ(0u, event_manager_attach_fd(manager, pipe_fds[0], EVENT_MANAGER_READ, note_fd, &calls));
    close(pipe_fds[1]);
    EXPECT_TRUE(run_until([&] { return !calls.conditions.empty(); }));
    EXPECT_EQ(EVENT_MANAGER_READ, static_cast<int>(calls.conditions.front()));
    pipe_fds[1] = open("/dev/null", O_WRONLY | O_CLOEXEC);
}

TEST_F(event_manager_test, refuses_descriptors_that_cannot_be_polled) {
    fd_calls calls;
    const int file = open("/tmp", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(static_cast<platform_status>(EPERM),
              event_manager_attach_fd(manager, file, EVENT_MANAGER_READ, note_fd, &calls));
    close(file);
    EXPECT_EQ(static_cast<platform_status>(EBADF),
              event_manager_attach_fd(manager, -1, EVENT_MANAGER_READ, note_fd, &calls));
    EXPECT_EQ(0u, event_manager_attach_fd(manager, pipe_fds[0], EVENT_MANAGER_READ, note_fd, &calls));
    EXPECT_EQ(static_cast<platform_status>(EEXIST),
              event_manager_attach_fd(manager, pipe_fds[0], EVENT_MANAGER_READ, note_fd, &calls));
}

TEST_F(event_manager_test, refuses_invalid_arguments) {
    const platform_status invalid = EINVAL;
    fd_calls calls;
    EXPECT_EQ(invalid, event_manager_attach_fd(nullptr, pipe_fds[0], EVENT_MANAGER_READ, note_fd, &calls));
    EXPECT_EQ(invalid, event_manager_attach_fd(manager, pipe_fds[0], 0, note_fd, &calls));
    EXPECT_EQ(invalid, event_manager_attach_fd(manager, pipe_fds[0], 4, note_fd, &calls));
    EXPECT_EQ(invalid, event_manager_attach_fd(manager, pipe_fds[0], EVENT_MANAGER_READ, nullptr, &calls));
    EXPECT_EQ(invalid, event_manager_attach_message(manager, code, nullptr, nullptr));
    event_manager_event event;
    EXPECT_EQ(-1, event_manager_block(nullptr, &event));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, event_manager_block(manager, nullptr));
    struct event_manager* untouched = manager;
    EXPECT_EQ(-1, event_manager_create(nullptr, &untouched));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(manager, untouched);
}

TEST_F(event_manager_test, dispatches_an_event_once) {
    fd_calls calls;
    calls.read_it = false;
    ASSERT_EQ(0u, event_manager_attach_fd(manager, pipe_fds[0], EVENT_MANAGER_READ, note_fd, &calls));
    ASSERT_EQ(1, write(pipe_fds[1], "x", 1));
    event_manager_event event;
    ASSERT_EQ(0, event_manager_block(manager, &event));
    const event_manager_event older = event;
    ASSERT_EQ(0, event_manager_block(manager, &event)) << "a second block finds the same event";
    event_manager_dispatch(manager, &older);
    EXPECT_TRUE(calls.conditions.empty()) << "the older event has been replaced";
    event_manager_dispatch(manager, &event);
    event_manager_dispatch(manager, &event);
    EXPECT_EQ(1u, calls.conditions.size());
}

TEST_F(event_manager_test, gives_its_loop_to_services_that_attach_themselves) {
    EXPECT_EQ(event_manager_sd_event(manager), event_manager_loop_handle(manager));
    EXPECT_EQ(nullptr, event_manager_loop_handle(nullptr));
    EXPECT_EQ(manager, event_manager_current());
}

struct message_calls {
    std::string body;
    int count = 0;
};

void answer(struct event_message* message, void* context) {
    auto* calls = static_cast<message_calls*>(context);
    size_t size = 0;
    const void* body = event_message_body(message, &size);
    calls->body.assign(static_cast<const char*>(body), size);
    ++calls->count;
    EXPECT_EQ(0u, event_message_reply(message, "reply", 5));
    EXPECT_EQ(static_cast<platform_status>(EALREADY), event_message_reply(message, "other", 5));
}

void keep_silent(struct event_message*, void*) {}

TEST_F(event_manager_test, passes_a_message_to_its_handler_and_returns_the_first_reply) {
    message_calls calls;
    ASSERT_EQ(0u, event_manager_attach_message(manager, code, answer, &calls));
    char reply[8] = {};
    size_t size = 0;
    EXPECT_EQ(0u, event_manager_send_message(manager, code, "body", 4, reply, sizeof reply, &size));
    EXPECT_EQ("body", calls.body);
    EXPECT_STREQ("reply", reply);
    EXPECT_EQ(5u, size);
}

TEST_F(event_manager_test, returns_the_full_length_of_a_reply_that_does_not_fit) {
    message_calls calls;
    ASSERT_EQ(0u, event_manager_attach_message(manager, code, answer, &calls));
    char reply[3] = {0, 0, 'x'};
    size_t size = 0;
    EXPECT_EQ(0u, event_manager_send_message(manager, code, "body", 4, reply, 2, &size));
    EXPECT_EQ(5u, size);
    EXPECT_EQ('x', reply[2]);
}

TEST_F(event_manager_test, has_one_handler_per_code) {
    message_calls calls;
    ASSERT_EQ(0u, event_manager_attach_message(manager, code, answer, &calls));
    EXPECT_EQ(static_cast<platform_status>(EEXIST), event_manager_attach_message(manager, code, answer, &calls));
    size_t size = 0;
    EXPECT_EQ(static_cast<platform_status>(ENOENT),
              event_manager_send_message(manager, code + 1, "", 0, nullptr, 0, &size));
}

TEST_F(event_manager_test, logs_a_handler_that_does_not_reply) {
    journal_listener journal;
    ASSERT_EQ(0u, event_manager_attach_message(manager, code, keep_silent, nullptr));
    size_t size = 0;
    EXPECT_EQ(static_cast<platform_status>(EPROTO),
              event_manager_send_message(manager, code, "", 0, nullptr, 0, &size));
    EXPECT_EQ("Message 0x1234 was handled without a reply", journal.receive_entry()["MESSAGE"]);
}

TEST_F(event_manager_test, survives_a_broken_pipe_without_passing_that_on_to_commands) {
    close(pipe_fds[0]);
    EXPECT_EQ(-1, write(pipe_fds[1], "x", 1));
    EXPECT_EQ(EPIPE, errno);
    pipe_fds[0] = open("/dev/null", O_RDONLY | O_CLOEXEC);
    // A shell that inherits an ignored signal cannot restore it.
    EXPECT_EQ("ended by SIGPIPE\n", output_of("sh -c 'kill -PIPE $$; echo ignored' || echo ended by SIGPIPE"));
}

}  // namespace
