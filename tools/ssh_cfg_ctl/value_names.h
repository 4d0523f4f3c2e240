/// Names of enumeration values in operational records.
#ifndef SSH_CFG_CTL_VALUE_NAMES_H
#define SSH_CFG_CTL_VALUE_NAMES_H

#include <cstdint>
#include <string_view>

/// The name of a value in an enumeration, which is identified by its name in the schemas. Null for an unknown value.
const char* ctl_value_name(std::string_view enumeration, int64_t value);

#endif
