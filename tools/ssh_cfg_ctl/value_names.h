/// Names of the numbers in operational records.
#ifndef SSH_CFG_CTL_VALUE_NAMES_H
#define SSH_CFG_CTL_VALUE_NAMES_H

#include <cstdint>
#include <string_view>

/// The name that a value has in an enumeration, which goes by its name in the records' schemas. Null when it has none.
const char* ctl_value_name(std::string_view enumeration, int64_t value);

#endif
