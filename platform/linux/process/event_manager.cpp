#include "platform/event_manager.h"

#include <sys/epoll.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <new>
#include <string>

#include "linux/process/event_manager_internal.h"
#include "linux/process/service_moment.h"
#include "linux/process/termination.h"
#include "linux/reporting/log_message_internal.h"

struct event_message {
    const void* body;
    size_t size;
    bool replied;
    void* reply;
    size_t reply_capacity;
    size_t reply_size;
};

namespace {

struct fd_watch {
    event_fd_handler handler;
    void* context;
    uint32_t conditions;
    sd_event_source* source;
};

struct message_registration {
    event_message_handler handler;
    void* context;
};

event_manager* current_manager;

}  // namespace

struct event_manager {
    std::string device_path;
    sd_event* loop;
    uint64_t blocked;  ///< number of events waited for; distinguishes the last event from older ones
    std::list<fd_watch> watches;
    std::map<uint32_t, message_registration> messages;
};

namespace {

/// A write to a closed pipe or socket must fail, not kill the process. Unlike an ignored signal, a handler is not
/// inherited by the commands that the agent runs, whose pipelines rely on the signal.
int survive_broken_pipes() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    return sigaction(SIGPIPE, &action, nullptr) == 0 ? 0 : errno;
}

int create_manager(const char* device_path, struct event_manager** manager) {
    std::unique_ptr<event_manager> created(new (std::nothrow) event_manager());
    if (created == nullptr) {
        return ENOMEM;
    }
    try {
        created->device_path = device_path;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    int result = sd_event_new(&created->loop);
    if (result >= 0) {
        result = termination_watch(created->loop);
    }
    if (result >= 0) {
        result = sd_event_set_watchdog(created->loop, 1);
    }
    if (result < 0) {
        sd_event_unref(created->loop);
        return -result;
    }
    *manager = created.release();
    current_manager = *manager;
    return 0;
}

uint32_t conditions_of(uint32_t epoll_events, uint32_t wanted) {
    uint32_t conditions = 0;
    if ((epoll_events & EPOLLIN) != 0) {
        conditions |= EVENT_MANAGER_READ;
    }
    if ((epoll_events & EPOLLOUT) != 0) {
        conditions |= EVENT_MANAGER_WRITE;
    }
    // Errors and hang-ups are left to the read or write that they make fail.
    if ((epoll_events & (EPOLLERR | EPOLLHUP)) != 0) {
        conditions |= wanted;
    }
    return conditions & wanted;
}

int fd_is_ready(sd_event_source*, int fd, uint32_t epoll_events, void* userdata) {
    const fd_watch& watch = *static_cast<fd_watch*>(userdata);
    const uint32_t conditions = conditions_of(epoll_events, watch.conditions);
    if (conditions != 0) {
        watch.handler(fd, conditions, watch.context);
    }
    return 0;
}

uint32_t epoll_events_for(uint32_t conditions) {
    return ((conditions & EVENT_MANAGER_READ) != 0 ? EPOLLIN : 0U) |
           ((conditions & EVENT_MANAGER_WRITE) != 0 ? EPOLLOUT : 0U);
}

/// Runs the loop until there is something to dispatch. Returns 0, or a negative errno value.
int wait_for_event(sd_event* loop) {
    while (sd_event_get_state(loop) != SD_EVENT_PENDING) {
        int result = sd_event_get_state(loop) == SD_EVENT_ARMED ? 0 : sd_event_prepare(loop);
        if (result == 0) {
            result = sd_event_wait(loop, UINT64_MAX);
        }
        if (result < 0) {
            return result;
        }
    }
    return 0;
}

}  // namespace

int event_manager_create(const char* device_path, struct event_manager** manager) {
    if (device_path == nullptr || manager == nullptr) {
        errno = EINVAL;
        return -1;
    }
    struct event_manager* created = nullptr;
    int result = survive_broken_pipes();
    if (result == 0) {
        result = create_manager(device_path, &created);
    }
    if (result == 0) {
        result = static_cast<int>(start_platform_services(created, service_moment::manager_created, 0));
    }
    if (result != 0) {
        event_manager_free(created);
        errno = result;
        return -1;
    }
    *manager = created;
    return 0;
}

void event_manager_free(struct event_manager* manager) {
    if (manager == nullptr) {
        return;
    }
    if (current_manager == manager) {
        stop_platform_services();
        current_manager = nullptr;
    }
    for (const fd_watch& watch : manager->watches) {
        sd_event_source_disable_unref(watch.source);
    }
    sd_event_unref(manager->loop);
    delete manager;
}

struct event_manager* event_manager_current() {
    return current_manager;
}

sd_event* event_manager_sd_event(struct event_manager* manager) {
    return manager->loop;
}

void* event_manager_loop_handle(struct event_manager* manager) {
    return manager == nullptr ? nullptr : manager->loop;
}

platform_status event_manager_attach_fd(struct event_manager* manager, int fd, uint32_t conditions,
                                        event_fd_handler handler, void* context) {
    constexpr uint32_t known = EVENT_MANAGER_READ | EVENT_MANAGER_WRITE;
    if (manager == nullptr || handler == nullptr || (conditions & known) == 0 || (conditions & ~known) != 0) {
        return EINVAL;
    }
    try {
        manager->watches.push_back({handler, context, conditions, nullptr});
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    fd_watch& watch = manager->watches.back();
    const int result =
        sd_event_add_io(manager->loop, &watch.source, fd, epoll_events_for(conditions), fd_is_ready, &watch);
    if (result < 0) {
        manager->watches.pop_back();
        return static_cast<platform_status>(-result);
    }
    return PLATFORM_OK;
}

platform_status event_manager_attach_message(struct event_manager* manager, uint32_t code,
                                             event_message_handler handler, void* context) {
    if (manager == nullptr || handler == nullptr) {
        return EINVAL;
    }
    try {
        if (!manager->messages.emplace(code, message_registration{handler, context}).second) {
            return EEXIST;
        }
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    const platform_status status = start_platform_services(manager, service_moment::message_attached, code);
    if (status != PLATFORM_OK) {
        manager->messages.erase(code);
    }
    return status;
}

const void* event_message_body(const struct event_message* message, size_t* size) {
    if (size != nullptr) {
        *size = message->size;
    }
    return message->body;
}

platform_status event_message_reply(struct event_message* message, const void* reply, size_t size) {
    if (message == nullptr || (reply == nullptr && size != 0)) {
        return EINVAL;
    }
    if (message->replied) {
        return EALREADY;
    }
    message->replied = true;
    message->reply_size = size;
    if (message->reply != nullptr && size != 0) {
        memcpy(message->reply, reply, std::min(size, message->reply_capacity));
    }
    return PLATFORM_OK;
}

platform_status event_manager_send_message(struct event_manager* manager, uint32_t code, const void* body, size_t size,
                                           void* reply, size_t capacity, size_t* reply_size) {
    const auto registration = manager->messages.find(code);
    if (registration == manager->messages.end()) {
        return ENOENT;
    }
    event_message message = {body, size, false, reply, capacity, 0};
    const message_registration called = registration->second;
    called.handler(&message, called.context);
    if (!message.replied) {
        platform_log(LOG_ERR, "Message 0x%x was handled without a reply", code);
        return EPROTO;
    }
    *reply_size = message.reply_size;
    return PLATFORM_OK;
}

int event_manager_block(struct event_manager* manager, struct event_manager_event* event) {
    if (manager == nullptr || event == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (manager->blocked == 0) {
        start_platform_services(manager, service_moment::first_wait, 0);
    }
    const int result = wait_for_event(manager->loop);
    if (result < 0) {
        errno = -result;
        return -1;
    }
    event->opaque[0] = reinterpret_cast<uintptr_t>(manager);
    event->opaque[1] = ++manager->blocked;
    return 0;
}

void event_manager_dispatch(struct event_manager* manager, const struct event_manager_event* event) {
    if (manager == nullptr || event == nullptr || event->opaque[0] != reinterpret_cast<uintptr_t>(manager) ||
        event->opaque[1] != manager->blocked || sd_event_get_state(manager->loop) != SD_EVENT_PENDING) {
        return;
    }
    const int result = sd_event_dispatch(manager->loop);
    if (result < 0) {
        platform_log(LOG_ERR, "Event could not be dispatched: %s", strerror(-result));
    }
}
