/// Users' keys as they are kept in the configuration's database, beside the configuration.
#ifndef USER_KEYS_KEY_RECORD_H
#define USER_KEYS_KEY_RECORD_H

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/status.h"

/// How a key came into the store.
enum class key_origin : uint8_t { configuration = 0, exec_mode = 1 };

struct key_record {
    key_origin origin = key_origin::configuration;
    uint32_t bits = 0;
    int64_t time = 0;  ///< when it was stored, in seconds since 1970
    std::string der;
};

/// Begins the keys of all records in the database.
inline constexpr char key_record_prefix[] = "user_key/";

/// Where a user's record stands in the database.
std::string key_record_place(std::string_view user);

/// The configuration's item that a user's key of the configuration comes from. The key counts only as long as there is
/// one.
std::string key_record_item(std::string_view user);

/// Whether a user may have this name: 1 to 64 letters, digits, '_', '-' and '.', the first neither '-' nor '.'.
bool key_user_is_valid(std::string_view user);

std::string key_record_encode(const key_record& record);

/// EBADMSG when the bytes are no record; `record` is then untouched.
platform_status key_record_decode(std::string_view bytes, key_record& record);

#endif
