#include "platform/event_manager.h"

#include <errno.h>
#include <poll.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>

#include "fake_internal.h"
#include "platform/managed_timer.h"
#include "platform/namespace_message.h"

struct event_manager {
    char device_path[64];
};

struct event_message {
    std::string body;
    fake_platform::message_reply reply;
};

struct managed_timer_leaf {
    int32_t handle;
    bool running;
    uint64_t due;
    uint64_t order;
};

namespace fake_platform {
namespace {

struct attached_fd {
    int fd;
    uint32_t conditions;
    event_fd_handler handler;
    void* context;
};

struct attached_message {
    event_message_handler handler;
    void* context;
};

struct attached_timer {
    managed_timer_handler handler;
    void* context;
    bool attached;
};

/// A step of the loop: a failure of the block call, or a handler.
struct loop_step {
    int block_error = 0;
    std::function<void()> handler;
};

struct loop_state {
    std::vector<std::unique_ptr<event_manager>> managers;
    std::vector<attached_fd> fds;
    std::map<uint32_t, attached_message> messages;
    std::deque<loop_step> steps;
    std::map<uint64_t, std::function<void()>> blocked_for;
    uint64_t next_event = 1;
    std::function<void()> loop_end;
    message_reply last_reply;
    std::vector<attached_timer> timers;
    std::vector<std::unique_ptr<managed_timer_leaf>> leaves;
    uint64_t now = 0;
    uint64_t starts = 0;
};

loop_state loop;

int fail_with_errno(platform_status status) {
    errno = static_cast<int>(status);
    return -1;
}

void run_loop_end() {
    if (!loop.loop_end) {
        exit(loop_end_status);
    }
    const std::function<void()> hook = loop.loop_end;
    hook();
    if (loop.steps.empty()) {
        abort();
    }
}

void call_fd_handlers(int fd, uint32_t conditions) {
    const std::vector<attached_fd> attached = loop.fds;
    for (const attached_fd& row : attached) {
        if (row.fd == fd && (row.conditions & conditions) != 0) {
            row.handler(fd, row.conditions & conditions, row.context);
        }
    }
}

uint32_t ready_conditions(const attached_fd& row) {
    struct pollfd question = {row.fd, 0, 0};
    question.events |= (row.conditions & EVENT_MANAGER_READ) != 0 ? POLLIN : 0;
    question.events |= (row.conditions & EVENT_MANAGER_WRITE) != 0 ? POLLOUT : 0;
    if (poll(&question, 1, 0) != 1) {
        return 0;
    }
    uint32_t conditions = 0;
    conditions |= (question.revents & POLLIN) != 0 ? uint32_t{EVENT_MANAGER_READ} : 0;
    conditions |= (question.revents & POLLOUT) != 0 ? uint32_t{EVENT_MANAGER_WRITE} : 0;
    return conditions;
}

managed_timer_leaf* earliest_leaf(uint64_t until) {
    managed_timer_leaf* earliest = nullptr;
    for (const auto& leaf : loop.leaves) {
        const bool due = leaf->running && leaf->due <= until;
        if (due && (earliest == nullptr || leaf->due < earliest->due ||
                    (leaf->due == earliest->due && leaf->order < earliest->order))) {
            earliest = leaf.get();
        }
    }
    return earliest;
}

bool timer_known(int32_t handle) {
    return handle >= 0 && static_cast<size_t>(handle) < loop.timers.size() &&
           loop.timers[static_cast<size_t>(handle)].attached;
}

void expire(managed_timer_leaf* leaf) {
    leaf->running = false;
    if (timer_known(leaf->handle)) {
        const attached_timer timer = loop.timers[static_cast<size_t>(leaf->handle)];
        timer.handler(leaf, timer.context);
    }
}

}  // namespace

void queue_event(std::function<void()> handler) {
    loop.steps.push_back({0, std::move(handler)});
}

void queue_message(uint32_t code, std::string body) {
    queue_event([code, body = std::move(body)] { send_message(code, body); });
}

void queue_fd(int fd, uint32_t conditions) {
    queue_event([fd, conditions] { call_fd_handlers(fd, conditions); });
}

void queue_block_failure(int error) {
    loop.steps.push_back({error, nullptr});
}

void set_loop_end(std::function<void()> hook) {
    loop.loop_end = std::move(hook);
}

void throw_at_loop_end() {
    loop.loop_end = [] { throw loop_ended(); };
}

size_t dispatch_queued() {
    size_t count = 0;
    for (; !loop.steps.empty(); count++) {
        const loop_step step = std::move(loop.steps.front());
        loop.steps.pop_front();
        if (step.handler) {
            step.handler();
        }
    }
    return count;
}

message_reply send_message(uint32_t code, std::string_view body) {
    event_message message = {std::string(body), {}};
    const auto attached = loop.messages.find(code);
    if (attached != loop.messages.end()) {
        message.reply.handled = true;
        attached->second.handler(&message, attached->second.context);
    }
    loop.last_reply = message.reply;
    return message.reply;
}

message_reply send_namespace_message(uint32_t code, std::string_view namespace_name) {
    namespace_message body = {};
    body.code = code;
    memcpy(body.name, namespace_name.data(), std::min(namespace_name.size(), sizeof body.name - 1));
    return send_message(NAMESPACE_MESSAGE, std::string_view(reinterpret_cast<const char*>(&body), sizeof body));
}

const message_reply& last_reply() {
    return loop.last_reply;
}

void signal_fd(int fd, uint32_t conditions) {
    call_fd_handlers(fd, conditions);
}

size_t dispatch_ready_fds() {
    size_t count = 0;
    const std::vector<attached_fd> attached = loop.fds;
    for (const attached_fd& row : attached) {
        if (const uint32_t conditions = ready_conditions(row); conditions != 0) {
            row.handler(row.fd, conditions, row.context);
            count++;
        }
    }
    return count;
}

void advance_time(uint32_t seconds) {
    const uint64_t until = loop.now + seconds;
    while (managed_timer_leaf* leaf = earliest_leaf(until)) {
        loop.now = leaf->due;
        expire(leaf);
    }
    loop.now = until;
}

size_t running_timers() {
    return static_cast<size_t>(
        std::count_if(loop.leaves.begin(), loop.leaves.end(), [](const auto& leaf) { return leaf->running; }));
}

namespace internal {

void reset_event_manager() {
    loop = loop_state();
}

}  // namespace internal
}  // namespace fake_platform

using namespace fake_platform;
using internal::enter;
using internal::hexadecimal;

int event_manager_create(const char* device_path, event_manager** manager) {
    if (const platform_status status = enter("event_manager_create", {device_path}); status != PLATFORM_OK) {
        return fail_with_errno(status);
    }
    loop.managers.push_back(std::make_unique<event_manager>());
    *manager = loop.managers.back().get();
    strncpy((*manager)->device_path, device_path, sizeof(*manager)->device_path - 1);
    return 0;
}

platform_status event_manager_attach_fd(event_manager*, int fd, uint32_t conditions, event_fd_handler handler,
                                        void* context) {
    const platform_status status = enter("event_manager_attach_fd", {conditions});
    if (status == PLATFORM_OK) {
        loop.fds.push_back({fd, conditions, handler, context});
    }
    return status;
}

platform_status event_manager_attach_message(event_manager*, uint32_t code, event_message_handler handler,
                                             void* context) {
    const platform_status status = enter("event_manager_attach_message", {hexadecimal(code)});
    if (status != PLATFORM_OK) {
        return status;
    }
    return loop.messages.emplace(code, attached_message{handler, context}).second ? platform_status{PLATFORM_OK}
                                                                                  : EEXIST;
}

const void* event_message_body(const event_message* message, size_t* size) {
    *size = message->body.size();
    return message->body.data();
}

platform_status event_message_reply(event_message* message, const void* reply, size_t size) {
    const platform_status status = enter("event_message_reply", {std::to_string(size)});
    if (status != PLATFORM_OK) {
        return status;
    }
    message->reply.replies++;
    message->reply.bytes.assign(static_cast<const char*>(reply), size);
    return message->reply.replies == 1 ? platform_status{PLATFORM_OK} : EALREADY;
}

int event_manager_block(event_manager*, event_manager_event* event) {
    if (const platform_status status = enter("event_manager_block", {}); status != PLATFORM_OK) {
        return fail_with_errno(status);
    }
    if (loop.steps.empty()) {
        run_loop_end();
    }
    const loop_step step = std::move(loop.steps.front());
    loop.steps.pop_front();
    if (!step.handler) {
        return fail_with_errno(static_cast<platform_status>(step.block_error));
    }
    *event = {{loop.next_event++, 0}};
    loop.blocked_for[event->opaque[0]] = step.handler;
    return 0;
}

void event_manager_dispatch(event_manager*, const event_manager_event* event) {
    enter("event_manager_dispatch", {});
    const auto waiting = loop.blocked_for.find(event->opaque[0]);
    if (waiting == loop.blocked_for.end()) {
        abort();
    }
    const std::function<void()> handler = std::move(waiting->second);
    loop.blocked_for.erase(waiting);
    handler();
}

void* event_manager_loop_handle(event_manager* manager) {
    return enter("event_manager_loop_handle", {}) == PLATFORM_OK ? manager : nullptr;
}

platform_status managed_timer_attach(event_manager*, managed_timer_handler handler, void* context, int32_t* handle) {
    const platform_status status = enter("managed_timer_attach", {});
    if (status == PLATFORM_OK) {
        *handle = static_cast<int32_t>(loop.timers.size());
        loop.timers.push_back({handler, context, true});
    }
    return status;
}

platform_status managed_timer_detach(int32_t handle) {
    if (const platform_status status = enter("managed_timer_detach", {handle}); status != PLATFORM_OK) {
        return status;
    }
    if (!timer_known(handle)) {
        return EINVAL;
    }
    loop.timers[static_cast<size_t>(handle)].attached = false;
    return PLATFORM_OK;
}

platform_status managed_timer_leaf_create(int32_t handle, managed_timer_leaf** leaf) {
    if (const platform_status status = enter("managed_timer_leaf_create", {handle}); status != PLATFORM_OK) {
        return status;
    }
    if (!timer_known(handle)) {
        return EINVAL;
    }
    loop.leaves.push_back(std::make_unique<managed_timer_leaf>(managed_timer_leaf{handle, false, 0, 0}));
    *leaf = loop.leaves.back().get();
    return PLATFORM_OK;
}

platform_status managed_timer_leaf_start(managed_timer_leaf* leaf, uint32_t seconds) {
    const platform_status status = enter("managed_timer_leaf_start", {seconds});
    if (status == PLATFORM_OK) {
        leaf->running = true;
        leaf->due = loop.now + seconds;
        leaf->order = loop.starts++;
    }
    return status;
}

void managed_timer_leaf_stop(managed_timer_leaf* leaf) {
    enter("managed_timer_leaf_stop", {});
    leaf->running = false;
}

void managed_timer_leaf_free(managed_timer_leaf* leaf) {
    enter("managed_timer_leaf_free", {leaf == nullptr ? "NULL" : "leaf"});
    const auto owned = std::find_if(loop.leaves.begin(), loop.leaves.end(),
                                    [leaf](const auto& candidate) { return candidate.get() == leaf; });
    if (owned != loop.leaves.end()) {
        loop.leaves.erase(owned);
    }
}
