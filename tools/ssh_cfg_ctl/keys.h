/// Users' public keys for people.
#ifndef SSH_CFG_CTL_KEYS_H
#define SSH_CFG_CTL_KEYS_H

#include <cstddef>
#include <string>

#include "control_protocol/json_text.h"

/// Returns the data of the answer to "key_list" as a table in lines of at most `width` columns (0: unlimited), that of the
/// answer to "key_export" as lines of an authorized_keys file, and nothing for an answer without data.
std::string ctl_keys_text(const control_json& answer, size_t width);

#endif
