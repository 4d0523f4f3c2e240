/// Users' keys as stored in the configuration database, next to the configuration.
#ifndef USER_KEYS_KEY_RECORD_H
#define USER_KEYS_KEY_RECORD_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/status.h"
#include "user_keys/authorized_key.h"

/// How keys were added to the store.
enum class key_origin : uint8_t { configuration = 0, exec_mode = 1 };

struct key_with_time : authorized_key {
    int64_t time = 0;  ///< when it was stored or changed, in seconds since the epoch

    bool operator==(const key_with_time&) const = default;
};

/// The keys of one user, all of the same origin.
struct key_record {
    key_origin origin = key_origin::configuration;
    std::vector<key_with_time> keys;

    bool operator==(const key_record&) const = default;
};

/// Prefix of the database keys of all records.
inline constexpr char key_record_prefix[] = "user_key/";

/// The database key of a user's record.
std::string key_record_place(std::string_view user);

/// The configuration item that a user's configured key comes from. The key is valid only while the item exists.
std::string key_record_item(std::string_view user);

/// Whether a user name is valid: 1 to 64 letters, digits, '_', '-' and '.', the first neither '-' nor '.'.
bool key_user_is_valid(std::string_view user);

std::string key_record_encode(const key_record& record);

/// Reads the present form and that of earlier versions, in which a record contains one RSA key without options and comment.
/// EBADMSG if the bytes are not a record; `record` is then unchanged.
platform_status key_record_decode(std::string_view bytes, key_record& record);

/// Returns the record as lines of an authorized_keys file.
std::string key_record_lines(const key_record& record);

#endif
