#include "user_keys/key_record.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/datastore.h"

namespace {

constexpr size_t user_name_max = 64;
constexpr uint8_t format_version = 1;

/// Precedes the DER form, in native byte order: only this machine reads it.
struct record_header {
    uint8_t version;
    uint8_t origin;
    uint16_t unused;
    uint32_t bits;
    int64_t time;
};

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
    const record_header header = {format_version, static_cast<uint8_t>(record.origin), 0, record.bits, record.time};
    std::string bytes(sizeof header, '\0');
    memcpy(bytes.data(), &header, sizeof header);
    return bytes + record.der;
}

platform_status key_record_decode(std::string_view bytes, key_record& record) {
    record_header header = {};
    if (bytes.size() <= sizeof header) {
        return EBADMSG;
    }
    memcpy(&header, bytes.data(), sizeof header);
    if (header.version != format_version || header.origin > static_cast<uint8_t>(key_origin::exec_mode)) {
        return EBADMSG;
    }
    record = {static_cast<key_origin>(header.origin), header.bits, header.time,
              std::string(bytes.substr(sizeof header))};
    return PLATFORM_OK;
}
