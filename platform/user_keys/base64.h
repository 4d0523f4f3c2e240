/// Base64 (RFC 4648, section 4), taken strictly: no other characters, no bits left over, and the padding it needs.
#ifndef USER_KEYS_BASE64_H
#define USER_KEYS_BASE64_H

#include <string>
#include <string_view>

#include "platform/key_store.h"

/// Returns 0, KEY_NOT_BASE64, or KEY_CUT_OFF for a text that is right as far as it goes but ends within a group of four
/// characters or before it has begun. `bytes` is untouched on failure.
platform_status base64_decode(std::string_view text, std::string& bytes);

std::string base64_encode(std::string_view bytes);

#endif
