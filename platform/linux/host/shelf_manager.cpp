#include "platform/shelf_manager.h"

#include <syslog.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <memory>
#include <new>
#include <vector>

#include "linux/datastore/state.h"
#include "linux/host/shelf_manager_internal.h"
#include "linux/reporting/log_message_internal.h"

namespace {

struct callback_slot {
    shelf_manager_callback callback = nullptr;
    void* context = nullptr;
};

}  // namespace

struct shelf_manager {
    sd_event* loop = nullptr;
    sd_event_source* connecting = nullptr;  ///< reports the connection when control returns to the loop
    callback_slot reload;
    callback_slot connect;
    callback_slot disconnect;
    bool wants_connection = false;
    bool is_connected = false;
    bool wants_notices = false;  ///< kept while the connection is lost
    bool awaited = false;        ///< the acknowledgement of the last notification is pending

    shelf_manager() = default;
    ~shelf_manager() {
        sd_event_source_disable_unref(connecting);
        sd_event_unref(loop);
    }
    shelf_manager(const shelf_manager&) = delete;
    shelf_manager& operator=(const shelf_manager&) = delete;
};

namespace {

struct shelf_state {
    std::vector<std::unique_ptr<shelf_manager>> clients;
    bool link_is_up = false;
    shelf_reload last;
    time_t sent = 0;      ///< by the clock that also runs while the machine sleeps
    time_t followed = 0;  ///< when a caller was last known to wait for the acknowledgement
};

/// Seconds after which a notification that no caller waits for no longer blocks another.
constexpr time_t abandoned_after = 3;

shelf_state& shelf_of_process() {
    static shelf_state state;
    return state;
}

time_t now() {
    timespec time = {};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return time.tv_sec;
}

/// The agent's handlers must not commit, and clients must not be released while they run.
void call(const callback_slot& slot, shelf_manager* client) {
    if (slot.callback != nullptr) {
        const datastore_handler_scope scope;
        slot.callback(client, slot.context);
    }
}

int become_connected(sd_event_source* /*source*/, void* userdata) {
    auto* client = static_cast<shelf_manager*>(userdata);
    if (client->wants_connection && !client->is_connected && shelf_of_process().link_is_up) {
        client->is_connected = true;
        call(client->connect, client);
    }
    return 0;
}

platform_status begin_to_connect(shelf_manager& client) {
    int result = 0;
    if (client.connecting == nullptr) {
        result = sd_event_add_defer(client.loop, &client.connecting, become_connected, &client);
    }
    if (result >= 0) {
        result = sd_event_source_set_enabled(client.connecting, SD_EVENT_ONESHOT);
    }
    return result < 0 ? static_cast<platform_status>(-result) : PLATFORM_OK;
}

void lose_connection(shelf_manager& client) {
    if (client.is_connected) {
        client.is_connected = false;
        client.awaited = false;
        call(client.disconnect, &client);
    }
}

bool hears_notices(const std::unique_ptr<shelf_manager>& client) {
    return client->is_connected && client->wants_notices && client->reload.callback != nullptr;
}

/// Closes a notification whose time is up.
void look_at_the_clock() {
    shelf_reload& last = shelf_of_process().last;
    last.passed = static_cast<uint32_t>(std::max<time_t>(now() - shelf_of_process().sent, 0));
    if (last.phase == shelf_reload_phase::waiting && last.passed >= last.timeout) {
        last.phase = shelf_reload_phase::unanswered;
        platform_log(LOG_WARNING, "The reload notice was not acknowledged within %u seconds", last.timeout);
    }
}

}  // namespace

platform_status shelf_manager_create(void* loop_handle, struct shelf_manager** shelf) try {
    if (loop_handle == nullptr || shelf == nullptr) {
        return EINVAL;
    }
    auto client = std::make_unique<shelf_manager>();
    client->loop = sd_event_ref(static_cast<sd_event*>(loop_handle));
    shelf_of_process().clients.push_back(std::move(client));
    *shelf = shelf_of_process().clients.back().get();
    return PLATFORM_OK;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

void shelf_manager_set_reload_callback(struct shelf_manager* shelf, shelf_manager_callback callback, void* context) {
    shelf->reload = {callback, context};
}

void shelf_manager_set_connect_callback(struct shelf_manager* shelf, shelf_manager_callback callback, void* context) {
    shelf->connect = {callback, context};
}

void shelf_manager_set_disconnect_callback(struct shelf_manager* shelf, shelf_manager_callback callback,
                                           void* context) {
    shelf->disconnect = {callback, context};
}

platform_status shelf_manager_connect(struct shelf_manager* shelf) {
    if (shelf == nullptr) {
        return EINVAL;
    }
    shelf->wants_connection = true;
    return begin_to_connect(*shelf);
}

platform_status shelf_manager_register_reload(struct shelf_manager* shelf) {
    if (shelf == nullptr) {
        return EINVAL;
    }
    shelf->wants_notices = true;
    return shelf->is_connected ? platform_status{PLATFORM_OK} : ENOTCONN;
}

platform_status shelf_manager_acknowledge_reload(struct shelf_manager* shelf) {
    if (shelf == nullptr) {
        return EINVAL;
    }
    if (!shelf->is_connected) {
        return ENOTCONN;
    }
    shelf_state& state = shelf_of_process();
    if (!shelf->awaited || state.last.phase != shelf_reload_phase::waiting) {
        return state.last.phase == shelf_reload_phase::unanswered ? ETIMEDOUT : EALREADY;
    }
    shelf->awaited = false;
    if (std::none_of(state.clients.begin(), state.clients.end(), [](const auto& client) { return client->awaited; })) {
        state.last.phase = shelf_reload_phase::acknowledged;
    }
    return PLATFORM_OK;
}

void shelf_manager_link(bool is_up) {
    shelf_state& state = shelf_of_process();
    state.link_is_up = is_up;
    for (size_t i = 0; i < state.clients.size(); i++) {
        shelf_manager& client = *state.clients[i];
        if (!is_up) {
            lose_connection(client);
        } else if (client.wants_connection && begin_to_connect(client) != PLATFORM_OK) {
            platform_log(LOG_ERR, "Failed to connect a client to the shelf manager");
        }
    }
}

platform_status shelf_manager_announce_reload(uint32_t timeout) {
    shelf_state& state = shelf_of_process();
    look_at_the_clock();
    if (state.last.phase == shelf_reload_phase::waiting && now() - state.followed < abandoned_after) {
        return EALREADY;
    }
    if (std::none_of(state.clients.begin(), state.clients.end(), hears_notices)) {
        return ENOENT;
    }
    state.last = {shelf_reload_phase::waiting, state.last.number + 1, timeout, 0};
    state.sent = now();
    for (const auto& client : state.clients) {
        client->awaited = hears_notices(client);
    }
    for (size_t i = 0; i < state.clients.size(); i++) {
        if (state.clients[i]->awaited) {
            call(state.clients[i]->reload, state.clients[i].get());
        }
    }
    state.followed = now();
    return PLATFORM_OK;
}

void shelf_manager_follow_reload() {
    shelf_of_process().followed = now();
}

shelf_reload shelf_manager_reload_state() {
    look_at_the_clock();
    return shelf_of_process().last;
}

void shelf_manager_reset() {
    shelf_of_process() = shelf_state();
}
