#include "platform/debug.h"

#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "linux/reporting/debug_internal.h"
#include "linux/reporting/log_message_internal.h"

namespace {

constexpr uint32_t flag_count = 32;

struct flag_names {
    std::string path;
    std::string name;
};

struct event_registration {
    std::string path;
    debug_event_handler handler;
    void* context;
};

/// Separate from the names, because the states are read before every debug print.
bool flag_on[flag_count];

struct registrations {
    flag_names flags[flag_count];  ///< an empty name means that no flag is registered
    std::vector<event_registration> handlers;
};

registrations& registered() {
    static registrations all;
    return all;
}

bool is_registered(uint32_t id) {
    return !registered().flags[id].name.empty();
}

bool path_is_usable(const char* path) {
    return path != nullptr && path[0] == '/' && path[strlen(path) - 1] == '/';
}

/// The flag's id; 0 if no flag has the name.
uint32_t find_flag(const std::string& name) {
    for (uint32_t id = 1; id < flag_count; ++id) {
        const flag_names& flag = registered().flags[id];
        if (is_registered(id) && (name == flag.name || name == flag.path + flag.name)) {
            return id;
        }
    }
    return 0;
}

void tell_handlers(uint32_t id, bool on) {
    const std::string path = registered().flags[id].path;
    // A handler may register another one, so the list is traversed by index.
    for (size_t i = 0; i < registered().handlers.size(); ++i) {
        const event_registration registration = registered().handlers[i];
        if (registration.path == path) {
            registration.handler(on ? DEBUG_ACTION_ON : DEBUG_ACTION_OFF, id, registration.context);
        }
    }
}

}  // namespace

platform_status debug_flag_register(const char* path, uint32_t id, const char* name, uint32_t type, uint32_t) {
    if (!path_is_usable(path) || id == 0 || id >= flag_count || name == nullptr || name[0] == '\0' ||
        type != DEBUG_FLAG_TYPE) {
        return EINVAL;
    }
    try {
        if (is_registered(id) || find_flag(name) != 0) {
            return EEXIST;
        }
        registered().flags[id] = {path, name};
        return PLATFORM_OK;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

platform_status debug_event_register(struct event_manager* manager, const char* path, debug_event_handler handler,
                                     void* context) {
    if (manager == nullptr || !path_is_usable(path) || handler == nullptr) {
        return EINVAL;
    }
    try {
        registered().handlers.push_back({path, handler, context});
        return PLATFORM_OK;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

int debug_flag_is_on(uint32_t id) {
    return id < flag_count && flag_on[id] ? 1 : 0;
}

void debug_write(uint32_t id, const char* line) {
    const errno_keeper keeper;
    if (line == nullptr) {
        return;
    }
    try {
        const std::string name = id < flag_count ? registered().flags[id].name : std::string();
        journal_send(LOG_DEBUG, line, {{"SSH_CFG_DEBUG=", name}}, line);
    } catch (const std::bad_alloc&) {
        journal_send(LOG_DEBUG, line, {}, line);
    }
}

std::vector<debug_flag_state> debug_flag_list() {
    std::vector<debug_flag_state> states;
    for (uint32_t id = 1; id < flag_count; ++id) {
        if (is_registered(id)) {
            states.push_back({registered().flags[id].path, registered().flags[id].name, id, flag_on[id]});
        }
    }
    return states;
}

platform_status debug_flag_set(const std::string& name, bool on) {
    const uint32_t id = find_flag(name);
    if (id == 0) {
        return ENOENT;
    }
    if (flag_on[id] != on) {
        flag_on[id] = on;
        tell_handlers(id, on);
    }
    return PLATFORM_OK;
}
