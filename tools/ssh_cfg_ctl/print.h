/// Human-readable answers. Text from outside is escaped so that it cannot control a terminal.
#ifndef SSH_CFG_CTL_PRINT_H
#define SSH_CFG_CTL_PRINT_H

#include <cstddef>
#include <string>

#include "control_protocol/json_text.h"

/// How many bytes of one text in an answer are shown.
inline constexpr size_t ctl_shown_max = 4096;

/// A plain value as readable text, "-" for null; other values as JSON.
std::string ctl_value_text(const control_json& value);

/// Returns the same text for a member of an object, and "-" if there is no such member.
std::string ctl_member_text(const control_json& object, const char* name);

/// Objects of plain values as a table, with their names as headings and one line per object; objects with nested values,
/// or too wide for a line of `width` columns (0: unlimited), as blocks.
std::string ctl_records_text(const control_json& records, size_t width);

/// One object as lines of name and value, with nested values indented below.
std::string ctl_record_text(const control_json& record);

/// The data of an operational read: a record, or an array of records.
std::string ctl_data_text(const control_json& data, size_t width);

/// A configuration with one item per line, in the format that load reads.
std::string ctl_configuration_text(const control_json& items);

#endif
