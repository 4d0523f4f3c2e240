#include "user_keys/key_record.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/datastore.h"
#include "user_keys/key_der.h"
#include "user_keys/wire_string.h"

namespace {

constexpr size_t user_name_max = 64;
constexpr uint8_t first_version = 1;  ///< one RSA key in DER form
constexpr uint8_t format_version = 2;

/// Precedes the DER form in a record of the first version, in native byte order: only this machine reads it.
struct first_version_header {
    uint8_t version;
    uint8_t origin;
    uint16_t unused;
    uint32_t bits;
    int64_t time;
};

/// The first bytes of every record.
constexpr size_t record_start_size = 2;

bool is_origin(uint8_t number) {
    return number <= static_cast<uint8_t>(key_origin::exec_mode);
}

bool decode_first_version(std::string_view bytes, key_record& record) {
    first_version_header header = {};
    rsa_public_key key;
    if (bytes.size() <= sizeof header) {
        return false;
    }
    memcpy(&header, bytes.data(), sizeof header);
    if (!is_origin(header.origin) || key_der_read(bytes.substr(sizeof header), key) != PLATFORM_OK) {
        return false;
    }
    record = {static_cast<key_origin>(header.origin), {{{{}, public_key_of_rsa(key), {}}, header.time}}};
    return true;
}

std::string encoded_time(int64_t time) {
    std::string bytes(sizeof time, '\0');
    memcpy(bytes.data(), &time, sizeof time);
    return bytes;
}

bool decode_key(std::string_view& bytes, key_with_time& key) {
    std::string_view time;
    std::string_view options;
    std::string_view blob;
    std::string_view comment;
    if (!wire_take_string(bytes, time) || !wire_take_string(bytes, options) || !wire_take_string(bytes, blob) ||
        !wire_take_string(bytes, comment) || time.size() != sizeof key.time) {
        return false;
    }
    memcpy(&key.time, time.data(), sizeof key.time);
    key.options = options;
    key.comment = comment;
    std::string_view rest = blob;
    std::string_view type;
    return wire_take_string(rest, type) && public_key_read(type, blob, key.key) == nullptr && key.key.blob == blob;
}

bool decode_present_version(std::string_view bytes, key_record& record) {
    const auto origin = static_cast<uint8_t>(bytes[1]);
    key_record found = {static_cast<key_origin>(origin), {}};
    bytes.remove_prefix(record_start_size);
    while (!bytes.empty()) {
        if (!decode_key(bytes, found.keys.emplace_back())) {
            return false;
        }
    }
    if (!is_origin(origin) || found.keys.empty()) {
        return false;
    }
    record = std::move(found);
    return true;
}

}  // namespace

std::string key_record_place(std::string_view user) {
    return std::string(key_record_prefix) += user;
}

std::string key_record_item(std::string_view user) {
    return (std::string("/cfg/gl/crypto/ssh/server/cmn/username/") += user) += "/keystr";
}

bool key_user_is_valid(std::string_view user) {
    return !user.empty() && user.size() <= user_name_max && user.front() != '-' && user.front() != '.' &&
           std::none_of(user.begin(), user.end(),
                        [](char c) { return datastore_reserved_character(static_cast<unsigned char>(c)) != 0; });
}

std::string key_record_encode(const key_record& record) {
    std::string bytes = {static_cast<char>(format_version), static_cast<char>(record.origin)};
    for (const key_with_time& key : record.keys) {
        wire_append_string(bytes, encoded_time(key.time));
        wire_append_string(bytes, key.options);
        wire_append_string(bytes, key.key.blob);
        wire_append_string(bytes, key.comment);
    }
    return bytes;
}

platform_status key_record_decode(std::string_view bytes, key_record& record) {
    if (bytes.size() <= record_start_size) {
        return EBADMSG;
    }
    const bool is_decoded = (bytes.front() == first_version && decode_first_version(bytes, record)) ||
                            (bytes.front() == format_version && decode_present_version(bytes, record));
    return is_decoded ? platform_status{PLATFORM_OK} : platform_status{EBADMSG};
}

std::string key_record_lines(const key_record& record) {
    std::string lines;
    for (const key_with_time& key : record.keys) {
        lines += authorized_key_line(key) + '\n';
    }
    return lines;
}
