#include "core/debug_level.h"

#include "appliers/server_settings.h"
#include "config_files/config_writer.h"
#include "config_files/parameter_table.h"
#include "core/debug.h"
#include "core/trace_points.h"
#include "platform/debug.h"

namespace {

constexpr uint32_t level_count = 3;
constexpr const char* level_texts[level_count + 1] = {nullptr, "DEBUG1", "DEBUG2", "DEBUG3"};

/// The three levels of the server or the client, and the entry that they set.
struct level_side {
    debug_flag first_flag;
    line_entry* entry;
    bool on[level_count + 1];  ///< by level, 1 to 3
};

level_side server_side{debug_server_l1, &server_config.parameters[SERVER_LOG_LEVEL], {}};
level_side client_side{debug_client_l1, &client_config.parameters[CLIENT_LOG_LEVEL], {}};

/// A level takes effect unless a higher one is on.
void level_on(level_side& side, uint32_t level) {
    for (uint32_t higher = level + 1; higher <= level_count; higher++) {
        if (side.on[higher]) {
            return;
        }
    }
    side.entry->current = level_texts[level];
}

// The three rules for switching a level off differ on purpose. Configured logging, which only servers have, is restored
// only when level 1 is switched off, even if a higher level is still on. It keeps level 2 from falling below level 1,
// and level 3 ignores it.

void level_1_off(level_side& side, bool logging) {
    if (logging) {
        side.entry->current = "VERBOSE";
    } else if (!side.on[2] && !side.on[3]) {
        side.entry->current = nullptr;
    }
}

void level_2_off(level_side& side, bool logging) {
    if (side.on[3]) {
        return;
    }
    side.entry->current = side.on[1] || logging ? level_texts[1] : nullptr;
}

void level_3_off(level_side& side, bool) {
    side.entry->current = side.on[2] ? level_texts[2] : side.on[1] ? level_texts[1] : nullptr;
}

constexpr void (*level_off[level_count + 1])(level_side& side, bool logging) = {nullptr, level_1_off, level_2_off,
                                                                                level_3_off};

void switch_level(level_side& side, uint32_t action, uint32_t level, bool logging) {
    if (action == DEBUG_ACTION_ON) {
        side.on[level] = true;
        level_on(side, level);
    } else if (action == DEBUG_ACTION_OFF) {
        side.on[level] = false;
        level_off[level](side, logging);
    }
}

uint32_t write_event(const line_entry& entry) {
    return entry.current != nullptr ? event_set_value : event_delete_value;
}

void restore_level(level_side& side, bool logging) {
    side.entry->current = logging ? "VERBOSE" : nullptr;
    for (uint32_t level = 1; level <= level_count; level++) {
        side.on[level] = debug_flag_is_on(side.first_flag + level - 1) != 0;
        if (side.on[level]) {
            side.entry->current = level_texts[level];
        }
    }
}

}  // namespace

void restore_log_levels() {
    restore_level(server_side, server_logging_configured != 0);
    restore_level(client_side, false);
}

void debug_level_handler(uint32_t action, uint32_t id, void*) {
    trace_event(core_trace_debug_level, {action, id});
    if (id >= debug_server_l1 && id <= debug_server_l3) {
        switch_level(server_side, action, id - debug_server_l1 + 1, server_logging_configured != 0);
        const line_entry& entry = *server_side.entry;
        update_config_files_restart(write_event(entry), entry.keyword, entry.current, entry.allvrf);
    } else if (id >= debug_client_l1 && id <= debug_client_l3) {
        switch_level(client_side, action, id - debug_client_l1 + 1, false);
        const line_entry& entry = *client_side.entry;
        update_client_config_file(write_event(entry), entry.keyword, entry.current);
    }
}
