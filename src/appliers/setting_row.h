/// Single-valued settings: one row each, and a common routine that applies them.
#ifndef APPLIERS_SETTING_ROW_H
#define APPLIERS_SETTING_ROW_H

#include <cstdint>

#include "config_files/line_entry.h"
#include "config_files/parameter_table.h"
#include "core/trace.h"
#include "platform/datastore_backend.h"

struct setting_row;

/// The event with which a setting's line is written.
enum setting_event : uint32_t {
    WRITE_AS_SET,           ///< always as a set value: a deleted item leaves its default in the file
    WRITE_AS_IT_CAME,       ///< with the item's own event: a deleted item removes the line from the file
    WRITE_AS_SET_ONCE_HELD  ///< as a set value if the entry had a current text before, else with the item's event
};

/// Writes a setting's line. `value` may be null for an event with the delete bit.
using setting_writer = void (*)(uint32_t event, const line_entry& entry, const char* value);

/// Formats an entry's next current text from an item's value, which is null if the item is deleted. The text is kept in
/// the entry or is static; null leaves the entry without a value.
using setting_text_maker = const char* (*)(const setting_row& row, const uint32_t* value);

struct setting_row {
    trace_event_point trace_point{};
    setting_entry* entry = nullptr;
    const char* event_text = nullptr;  ///< debug format for the event
    platform_status (*check)(const datastore_change& change) =
        nullptr;  ///< a result other than 0 rejects the change and is the applier's result; null: no check
    setting_text_maker make_text = nullptr;
    void (*announce)(const char* text) = nullptr;  ///< prints the new current text if the flag is on; null: no print
    setting_event event = WRITE_AS_SET;
    bool is_telemetry = false;       ///< part of the published server state
    setting_writer write = nullptr;  ///< null: kept in memory only
};

/// Applies a change of the row's item. Ignores an event that neither sets nor deletes. Returns the result of the check,
/// or 0: failures to edit a file are reported by the edit itself.
platform_status apply_setting(const setting_row& row, const datastore_change& change);

/// Gives an entry its next current text and writes it as the row says: the second half of apply_setting.
void put_setting(const setting_row& row, uint32_t item_event, const char* text);

// Text makers.

/// "%d" of the value; the default if deleted.
const char* number_or_default(const setting_row& row, const uint32_t* value);

/// "%d" of the value; no value if deleted.
const char* number_or_nothing(const setting_row& row, const uint32_t* value);

/// "0x%x" of the code point; the default if deleted.
const char* code_point_or_default(const setting_row& row, const uint32_t* value);

/// The two halves of "%dM %dm" (megabytes and minutes between rekeyings). Each replaces its own half of the entry's
/// current text and keeps the other; if deleted, its half becomes 60 or 1024.
const char* rekey_with_time(const setting_row& row, const uint32_t* value);
const char* rekey_with_volume(const setting_row& row, const uint32_t* value);

// Writers.

/// Into the server's files; restarts the servers.
void write_server_setting(uint32_t event, const line_entry& entry, const char* value);

/// Into the client's file.
void write_client_setting(uint32_t event, const line_entry& entry, const char* value);

#endif
