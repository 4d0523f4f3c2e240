/// Single-valued settings: a row for each, and one routine behind them.
#ifndef APPLIERS_SETTING_ROW_H
#define APPLIERS_SETTING_ROW_H

#include <cstdint>

#include "config_files/line_entry.h"
#include "config_files/parameter_table.h"
#include "core/trace.h"
#include "platform/datastore_backend.h"

struct setting_row;

/// Which event a setting's line is written with.
enum setting_event : uint32_t {
    WRITE_AS_SET,           ///< always as a set value: a deleted item leaves its default in the file
    WRITE_AS_IT_CAME,       ///< as the item's own event: a deleted item takes the line out of the file
    WRITE_AS_SET_ONCE_HELD  ///< as a set value when the entry had a current text before, else as it came
};

/// Writes a setting's line. `value` may be null for an event with the delete bit.
using setting_writer = void (*)(uint32_t event, const line_entry& entry, const char* value);

/// Makes an entry's next current text of an item's value, null when the item is deleted. The text is kept in the entry or
/// is a static one; null leaves the entry without a value.
using setting_text_maker = const char* (*)(const setting_row& row, const uint32_t* value);

struct setting_row {
    trace_event_point trace_point{};
    setting_entry* entry = nullptr;
    const char* event_text = nullptr;  ///< debug format with the event
    platform_status (*check)(const datastore_change& change) =
        nullptr;  ///< what is not 0 is the applier's result, and the change is not applied; null: none
    setting_text_maker make_text = nullptr;
    void (*announce)(const char* text) = nullptr;  ///< debug print of the new current text; null: none
    setting_event event = WRITE_AS_SET;
    bool is_telemetry = false;       ///< part of the published server state
    setting_writer write = nullptr;  ///< null: kept in memory only
};

/// Applies a change of the row's item. An event that neither sets nor deletes does nothing. Returns the check's result, or
/// 0: what a file's edit met is reported there.
platform_status apply_setting(const setting_row& row, const datastore_change& change);

/// Gives an entry its next current text and writes it as the row says; the part of apply_setting after the value.
void put_setting(const setting_row& row, uint32_t item_event, const char* text);

// Makers of texts.

/// "%d" of the value; the default when deleted.
const char* number_or_default(const setting_row& row, const uint32_t* value);

/// "%d" of the value; no value when deleted.
const char* number_or_nothing(const setting_row& row, const uint32_t* value);

/// "0x%x" of the code point; the default when deleted.
const char* code_point_or_default(const setting_row& row, const uint32_t* value);

/// The two halves of "%dM %dm" (megabytes and minutes between rekeyings). Each replaces its own half of the entry's
/// current text and keeps the other; when deleted, its half becomes 60 or 1024.
const char* rekey_with_time(const setting_row& row, const uint32_t* value);
const char* rekey_with_volume(const setting_row& row, const uint32_t* value);

// Writers.

/// Into the server's files, restarting the servers.
void write_server_setting(uint32_t event, const line_entry& entry, const char* value);

/// Into the client's file.
void write_client_setting(uint32_t event, const line_entry& entry, const char* value);

#endif
