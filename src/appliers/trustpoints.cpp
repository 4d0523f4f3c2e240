#include "appliers/trustpoints.h"

#include <cerrno>
#include <cstring>

#include "appliers/name_tuple.h"
#include "appliers/trace_points.h"
#include "config_files/config_writer.h"
#include "config_files/parameter_table.h"
#include "config_files/trustpoints.h"
#include "core/agent_state.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/refusal.h"
#include "core/text.h"
#include "core/trace.h"

namespace {

constexpr size_t warning_size = 64;
constexpr char user_trustpoint_tree[] = "cmn/trustpoint/user/";

enum : size_t { FLAG_COMMON_NAME, FLAG_USER_PRINCIPAL_NAME, username_flag_count };

enum : uint32_t { USERNAME_FROM_COMMON_NAME = 1, USERNAME_FROM_USER_PRINCIPAL_NAME = 2 };

int32_t username_flags[username_flag_count] = {1, 0};

platform_status warn(const char* format, uint32_t event) {
    char text[warning_size];
    format_text(text, sizeof text, format, static_cast<int>(event));
    debug_print("%s", text);
    log_text(WARNING_GENERAL, text);
    trace_error(appliers_trace_trustpoint_event, {text});
    return 1;
}

/// Writes the entry's value. A removal deletes the line only if no value is left.
void write_entry(const line_entry& entry, uint32_t event) {
    const bool still_set = (event & DATASTORE_EVENT_DELETE) != 0 && entry.current != nullptr;
    update_config_files_restart(still_set ? event_set_value : event, entry.keyword, entry.current, entry.allvrf);
}

/// The slot that holds the name, or user_trustpoint_count if there is none.
uint32_t slot_of(const char* name) {
    uint32_t slot = 0;
    while (slot < user_trustpoint_count && std::strcmp(user_trustpoints[slot], name) != 0) {
        slot++;
    }
    return slot;
}

/// The item's name as the slots store it, cut to their size. Returns false if there is none.
bool read_name(const datastore_path_components* components, char (&name)[trustpoint_size]) {
    const char* last = components->count > 0 ? components->component[components->count - 1] : nullptr;
    copy_text(name, sizeof name, last);
    return name[0] != '\0';
}

/// Moves the last name into the slot of the removed one, so that the others keep theirs.
void remove_name(const char* name) {
    debug_print("user tp in apply delete %s", name);
    const uint32_t slot = slot_of(name);
    if (slot == user_trustpoint_count) {
        return;
    }
    debug_print("delete match pos %d", static_cast<int>(slot));
    const uint32_t last = user_trustpoint_count - 1;
    if (slot != last) {
        std::memcpy(user_trustpoints[slot], user_trustpoints[last], trustpoint_size);
    }
    user_trustpoints[last][0] = '\0';
    user_trustpoint_count = last;
}

void add_name(const char* name) {
    debug_print("user tp in apply set %s", name);
    const uint32_t slot = slot_of(name);
    if (slot < user_trustpoint_count) {
        return;
    }
    if (slot == user_trustpoint_max) {
        // A configuration stored by a version that checked each name alone may have more.
        trace_error(appliers_trace_trustpoint_dropped, {name});
        return;
    }
    debug_print("set match pos %d", static_cast<int>(slot));
    copy_text(user_trustpoints[slot], trustpoint_size, name);
    user_trustpoint_count++;
}

/// Writes the lines as they are after the change; removing the last name removes them.
void write_user_trustpoints(const char* function, uint32_t event) {
    setting_entry& count = server_config.parameters[SERVER_USER_TRUSTPOINT_COUNT];
    setting_entry& list = server_config.parameters[SERVER_USER_TRUSTPOINT];
    if (!join_user_trustpoints(list.text, trustpoint_size)) {
        trace_error(appliers_trace_trustpoint_cut, {list.text});
    }
    format_text(count.text, sizeof count.text, "%d", static_cast<int>(user_trustpoint_count));
    debug_print("(%s), User trustpoint:=%s,User trustpoint count:=%s", function, list.text, count.text);
    trace_event(appliers_trace_trustpoint_user, {event, count.text, list.text});
    count.current = user_trustpoint_count > 0 ? count.text : nullptr;
    list.current = user_trustpoint_count > 0 ? list.text : nullptr;
    write_entry(count, event);
    write_entry(list, event);
}

/// How many names the commit would add: while verifiers run, the datastore reads as the commit would leave it.
uint32_t count_new_names() {
    datastore_list* list = nullptr;
    uint32_t count = 0;
    if (agent_handles.server_binding == nullptr ||
        datastore_list_get(agent_handles.server_binding, user_trustpoint_tree, -1, &list, &count) != PLATFORM_OK) {
        return 0;
    }
    uint32_t added = 0;
    for (uint32_t i = 0; i < count; i++) {
        char name[trustpoint_size];
        copy_text(name, sizeof name, datastore_list_name(list, i));
        added += slot_of(name) == user_trustpoint_count ? 1 : 0;
    }
    datastore_list_free(list);
    return added;
}

/// Whether the name has a slot, or the commit leaves one for it. Appliers run in the order of the paths, so a deletion in
/// the same commit may come too late to free one.
bool has_room_for(const char* name) {
    const uint32_t free_slots = user_trustpoint_max - user_trustpoint_count;
    return slot_of(name) < user_trustpoint_count || (free_slots > 0 && count_new_names() <= free_slots);
}

}  // namespace

platform_status sshd_apply_trustpoint_host(const datastore_change* change, const datastore_path_components*) {
    debug_print("Event:=%d, Config:=ssh server trustpoint host", static_cast<int>(change->event));
    line_entry& entry = server_config.parameters[SERVER_HOST_TRUSTPOINT];
    if ((change->event & DATASTORE_EVENT_DELETE) != 0) {
        host_trustpoint[0] = '\0';
        entry.current = nullptr;
    } else if ((change->event & DATASTORE_EVENT_SET) != 0) {
        if (change->value == nullptr) {
            return warn("The event (%d) did not set a value", change->event);
        }
        copy_text(host_trustpoint, sizeof host_trustpoint, static_cast<const char*>(change->value));
        entry.current = host_trustpoint;
    } else {
        return warn("Unsupported Event Type (%d)", change->event);
    }
    trace_event(appliers_trace_trustpoint_host, {change->event, host_trustpoint});
    write_entry(entry, change->event);
    return PLATFORM_OK;
}

platform_status user_trustpoint_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                         const datastore_path_components* components) {
    char name[trustpoint_size];
    if ((change->event & DATASTORE_EVENT_CREATE_OR_SET) != 0 && read_name(components, name) && !has_room_for(name)) {
        return refuse_change(error_text, accepted, EINVAL, appliers_trace_trustpoint_refused,
                             "More than 10 trustpoints cannot be configured");
    }
    *accepted = 1;
    return PLATFORM_OK;
}

platform_status sshd_apply_trustpoint_user(const datastore_change* change,
                                           const datastore_path_components* components) {
    debug_print("Event:=%d, Config:=ssh server trustpoint user", static_cast<int>(change->event));
    char name[trustpoint_size];
    if (!read_name(components, name)) {
        trace_error(appliers_trace_item_name);
        return 1;
    }
    if ((change->event & DATASTORE_EVENT_DELETE) != 0) {
        remove_name(name);
    } else if ((change->event & DATASTORE_EVENT_SET) != 0) {
        add_name(name);
    } else {
        return warn("Unsupported Event Type (%d)", change->event);
    }
    write_user_trustpoints(__func__, change->event);
    return PLATFORM_OK;
}

platform_status ssh_apply_certificate_username(const datastore_change* change, const datastore_path_components*) {
    debug_print("Event:=%d, Config:=ssh certificate username", static_cast<int>(change->event));
    if ((change->event & DATASTORE_EVENT_DELETE) != 0) {
        debug_print("(%s) config removed", __func__);
        username_flags[FLAG_COMMON_NAME] = 1;
        username_flags[FLAG_USER_PRINCIPAL_NAME] = 0;
    } else if ((change->event & DATASTORE_EVENT_CREATE_OR_SET) == 0 || change->value == nullptr ||
               unpack_flags(*change, username_flag_count, "CERT-USERNAME-APPLY", username_flags) != PLATFORM_OK) {
        return PLATFORM_OK;
    }
    const uint32_t mask = (username_flags[FLAG_COMMON_NAME] != 0 ? USERNAME_FROM_COMMON_NAME : 0U) |
                          (username_flags[FLAG_USER_PRINCIPAL_NAME] != 0 ? USERNAME_FROM_USER_PRINCIPAL_NAME : 0U);
    setting_entry& entry = server_config.parameters[SERVER_CERTIFICATE_USERNAME];
    format_text(entry.text, sizeof entry.text, "%d", static_cast<int>(mask));
    debug_print("(%s), Username Field = %s", __func__, entry.text);
    entry.current = entry.text;
    trace_event(appliers_trace_certificate_username, {change->event, entry.text});
    write_entry(entry, change->event);
    return PLATFORM_OK;
}
