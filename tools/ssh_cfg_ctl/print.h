/// Answers as people read them. Whatever comes from outside is made harmless for a terminal.
#ifndef SSH_CFG_CTL_PRINT_H
#define SSH_CFG_CTL_PRINT_H

#include <cstddef>
#include <string>

#include "control_protocol/json_text.h"

/// Objects of plain values as a table: a heading from their names, a line for each; objects that hold other values, or
/// too much for a line of `width` columns (0: any), as blocks.
std::string ctl_records_text(const control_json& records, size_t width);

/// One object as lines of name and value, what it holds itself indented below.
std::string ctl_record_text(const control_json& record);

/// Whatever an operational read has given: a record, or an array of them.
std::string ctl_data_text(const control_json& data, size_t width);

/// A configuration with one item a line, which can be loaded again.
std::string ctl_configuration_text(const control_json& items);

#endif
