#include "appliers/setting_row.h"

#include <cstdio>

#include "config_files/config_writer.h"
#include "core/debug.h"
#include "core/text.h"
#include "core/upcalls.h"

namespace {

/// Time and volume after which a session renews its keys.
struct rekey_limit {
    int megabytes = 1024;
    int minutes = 60;
};

rekey_limit current_rekey_limit(const line_entry& entry) {
    rekey_limit limit;
    if (entry.current != nullptr) {
        debug_print("RekeyOld:=%s", entry.current);
        std::sscanf(entry.current, "%dM %dm", &limit.megabytes, &limit.minutes);
    }
    return limit;
}

uint32_t event_of(const setting_row& row, uint32_t item_event) {
    const bool as_set =
        row.event == WRITE_AS_SET || (row.event == WRITE_AS_SET_ONCE_HELD && row.entry->current != nullptr);
    return as_set ? event_set_value : item_event;
}

}  // namespace

platform_status apply_setting(const setting_row& row, const datastore_change& change) {
    debug_print(row.event_text, static_cast<int>(change.event));
    if (const platform_status status = row.check != nullptr ? row.check(change) : PLATFORM_OK; status != PLATFORM_OK) {
        return status;
    }
    if ((change.event & DATASTORE_EVENT_CREATE_OR_SET) != 0 && change.value != nullptr) {
        put_setting(row, change.event, row.make_text(row, static_cast<const uint32_t*>(change.value)));
    } else if ((change.event & DATASTORE_EVENT_DELETE) != 0) {
        put_setting(row, change.event, row.make_text(row, nullptr));
    }
    return PLATFORM_OK;
}

void put_setting(const setting_row& row, uint32_t item_event, const char* text) {
    const uint32_t event = event_of(row, item_event);
    row.entry->current = text;
    trace_event(row.trace_point, {item_event, text});
    if (row.announce != nullptr) {
        row.announce(text);
    }
    if (row.is_telemetry) {
        publish_telemetry();
    }
    if (row.write == nullptr) {
        return;
    }
    char buffer[setting_text_size];
    row.write(event, *row.entry, text_of_line(row.entry->line_text, text, buffer));
}

const char* number_or_default(const setting_row& row, const uint32_t* value) {
    return value != nullptr ? number_or_nothing(row, value) : row.entry->default_text;
}

const char* number_or_nothing(const setting_row& row, const uint32_t* value) {
    if (value == nullptr) {
        return nullptr;
    }
    format_text(row.entry->text, setting_text_size, "%d", static_cast<int>(*value));
    return row.entry->text;
}

const char* code_point_or_default(const setting_row& row, const uint32_t* value) {
    if (value == nullptr) {
        return row.entry->default_text;
    }
    format_text(row.entry->text, setting_text_size, "0x%x", *value);
    return row.entry->text;
}

const char* rekey_with_time(const setting_row& row, const uint32_t* value) {
    const rekey_limit limit = current_rekey_limit(*row.entry);
    if (value != nullptr) {
        format_text(row.entry->text, setting_text_size, "%dM %dm", limit.megabytes, static_cast<int>(*value));
    } else {
        format_text(row.entry->text, setting_text_size, "%dM 60m", limit.megabytes);
    }
    return row.entry->text;
}

const char* rekey_with_volume(const setting_row& row, const uint32_t* value) {
    const rekey_limit limit = current_rekey_limit(*row.entry);
    if (value != nullptr) {
        format_text(row.entry->text, setting_text_size, "%dM %dm", static_cast<int>(*value), limit.minutes);
    } else {
        format_text(row.entry->text, setting_text_size, "1024M %dm", limit.minutes);
    }
    return row.entry->text;
}

void write_server_setting(uint32_t event, const line_entry& entry, const char* value) {
    update_config_files_restart(event, entry.keyword, value, entry.allvrf);
}

void write_client_setting(uint32_t event, const line_entry& entry, const char* value) {
    update_client_config_file(event, entry.keyword, value);
}
