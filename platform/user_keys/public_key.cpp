#include "user_keys/public_key.h"

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include <array>
#include <memory>

#include "platform/algorithms.h"
#include "user_keys/base64.h"
#include "user_keys/wire_string.h"

namespace {

enum class key_family : uint8_t { rsa, ed25519, ecdsa };

struct key_type_row {
    std::string_view name;
    key_family family;
    /// The algorithm of signatures with such a key. FIPS mode accepts the key if it accepts the algorithm.
    std::string_view signature;
    bool is_in_security_key = false;
    uint32_t bits = 0;  ///< 0: depends on the key
    std::string_view curve = {};
    int curve_number = 0;
};

constexpr key_type_row key_types[] = {
    {"ssh-ed25519", key_family::ed25519, "ssh-ed25519", false, 256},
    {"ecdsa-sha2-nistp256", key_family::ecdsa, "ecdsa-sha2-nistp256", false, 256, "nistp256", NID_X9_62_prime256v1},
    {"ecdsa-sha2-nistp384", key_family::ecdsa, "ecdsa-sha2-nistp384", false, 384, "nistp384", NID_secp384r1},
    {"ecdsa-sha2-nistp521", key_family::ecdsa, "ecdsa-sha2-nistp521", false, 521, "nistp521", NID_secp521r1},
    {"ssh-rsa", key_family::rsa, "rsa-sha2-512"},
    {"sk-ssh-ed25519@openssh.com", key_family::ed25519, "sk-ssh-ed25519@openssh.com", true, 256},
    {"sk-ecdsa-sha2-nistp256@openssh.com", key_family::ecdsa, "sk-ecdsa-sha2-nistp256@openssh.com", true, 256,
     "nistp256", NID_X9_62_prime256v1},
};

constexpr uint32_t rsa_bits_max = 16384;  ///< OpenSSL's limit
constexpr size_t ed25519_size = 32;
constexpr char truncated[] = "the key is truncated";

template <auto free_function>
struct openssl_deleter {
    template <typename T>
    void operator()(T* object) const {
        free_function(object);
    }
};

using ec_group = std::unique_ptr<EC_GROUP, openssl_deleter<EC_GROUP_free>>;
using ec_point = std::unique_ptr<EC_POINT, openssl_deleter<EC_POINT_free>>;

const key_type_row* find_type(std::string_view name) {
    for (const key_type_row& row : key_types) {
        if (row.name == name) {
            return &row;
        }
    }
    return nullptr;
}

/// sshd takes only points in uncompressed form that are on the curve.
bool is_point(const key_type_row& row, std::string_view bytes) {
    constexpr char uncompressed = 4;
    if (bytes.size() != 1 + 2 * ((row.bits + 7) / 8) || bytes.front() != uncompressed) {
        return false;
    }
    const ec_group group(EC_GROUP_new_by_curve_name(row.curve_number));
    const ec_point point(group == nullptr ? nullptr : EC_POINT_new(group.get()));
    const bool is_on_curve =
        point != nullptr &&
        EC_POINT_oct2point(group.get(), point.get(), reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                           nullptr) == 1;
    ERR_clear_error();
    return is_on_curve;
}

const char* check_ecdsa(const key_type_row& row, std::string_view& rest) {
    std::string_view curve;
    std::string_view point;
    if (!wire_take_string(rest, curve) || !wire_take_string(rest, point)) {
        return truncated;
    }
    return curve == row.curve && is_point(row, point) ? nullptr : "the key is not a point on its curve";
}

const char* check_ed25519(std::string_view& rest) {
    std::string_view bytes;
    if (!wire_take_string(rest, bytes)) {
        return truncated;
    }
    return bytes.size() == ed25519_size ? nullptr : "an Ed25519 key has 32 bytes";
}

/// Checks what follows the type.
const char* check_fields(const key_type_row& row, std::string_view rest) {
    const char* reason = row.family == key_family::ecdsa ? check_ecdsa(row, rest) : check_ed25519(rest);
    if (reason != nullptr) {
        return reason;
    }
    std::string_view application;
    if (row.is_in_security_key && !wire_take_string(rest, application)) {
        return truncated;
    }
    return rest.empty() ? nullptr : "extra bytes follow the end of the key";
}

const char* read_rsa(std::string_view blob, public_key& key) {
    rsa_public_key numbers;
    const platform_status status = key_blob_read(blob, rsa_bits_max, numbers);
    if (status == KEY_TOO_LARGE) {
        return "the key has more than 16384 bits";
    }
    if (status != PLATFORM_OK) {
        return platform_status_text(status);
    }
    key = public_key_of_rsa(numbers);
    return nullptr;
}

}  // namespace

bool public_key_type_is_known(std::string_view type) {
    return find_type(type) != nullptr;
}

std::string public_key_types() {
    std::string text;
    for (const key_type_row& row : key_types) {
        (text += text.empty() ? "" : ", ") += row.name;
    }
    return text;
}

bool public_key_is_in_security_key(std::string_view type) {
    const key_type_row* row = find_type(type);
    return row != nullptr && row->is_in_security_key;
}

bool public_key_is_approved_for_fips(std::string_view type) {
    const key_type_row* row = find_type(type);
    const algorithm_row* algorithm = row == nullptr ? nullptr : algorithm_named(algorithm_kind::key, row->signature);
    return algorithm != nullptr &&
           (algorithm->fips == algorithm_fips::approved || algorithm->fips == algorithm_fips::offered);
}

const char* public_key_read(std::string_view type, std::string_view blob, public_key& key) {
    const key_type_row* row = find_type(type);
    std::string_view rest = blob;
    std::string_view inner_type;
    if (row == nullptr) {
        return "the key is of an unknown type";
    }
    if (!wire_take_string(rest, inner_type)) {
        return truncated;
    }
    if (inner_type != type) {
        return "the key is of another type than its first word says";
    }
    if (row->family == key_family::rsa) {
        return read_rsa(blob, key);
    }
    const char* reason = check_fields(*row, rest);
    if (reason == nullptr) {
        key = {std::string(type), std::string(blob), row->bits};
    }
    return reason;
}

public_key public_key_of_rsa(const rsa_public_key& key) {
    return {"ssh-rsa", key_blob_write(key), key_bits(key)};
}

std::string public_key_text(const public_key& key) {
    return key.type + ' ' + base64_encode(key.blob);
}

std::string public_key_fingerprint(const public_key& key) {
    std::array<char, EVP_MAX_MD_SIZE> digest = {};
    size_t size = 0;
    if (EVP_Q_digest(nullptr, "SHA256", nullptr, key.blob.data(), key.blob.size(),
                     reinterpret_cast<unsigned char*>(digest.data()), &size) != 1) {
        return {};
    }
    std::string text = base64_encode({digest.data(), size});
    text.erase(text.find_last_not_of('=') + 1);
    return "SHA256:" + text;
}
