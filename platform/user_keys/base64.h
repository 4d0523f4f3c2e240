/// Base64 (RFC 4648, section 4), decoded strictly: no other characters, no leftover bits, and correct padding.
#ifndef USER_KEYS_BASE64_H
#define USER_KEYS_BASE64_H

#include <string>
#include <string_view>

#include "platform/key_store.h"

/// Returns 0, KEY_NOT_BASE64, or KEY_CUT_OFF for an empty text or a valid one that ends within a group of four
/// characters. `bytes` is unchanged on failure.
platform_status base64_decode(std::string_view text, std::string& bytes);

std::string base64_encode(std::string_view bytes);

#endif
