#include "user_keys/key_text.h"

#include <openssl/evp.h>

#include <array>
#include <bit>

#include "user_keys/base64.h"

namespace {

constexpr std::string_view key_type = "ssh-rsa";
constexpr std::string_view blanks = " \t\r\n";

constexpr uint32_t bits_min = 1024;                   ///< sshd accepts no smaller key
constexpr uint32_t bits_max = KEY_STORE_DER_MAX * 8;  ///< an upper bound; the DER form has the exact limit
/// OpenSSL refuses to verify with a larger one.
constexpr size_t exponent_size_max = sizeof(uint64_t);

/// Consumes a string (RFC 4251, section 5: four bytes of length, then the bytes) at the front.
bool take_string(std::string_view& blob, std::string_view& field) {
    if (blob.size() < sizeof(uint32_t)) {
        return false;
    }
    uint32_t size = 0;
    for (size_t i = 0; i < sizeof size; i++) {
        size = size << 8 | static_cast<unsigned char>(blob[i]);
    }
    if (blob.size() - sizeof size < size) {
        return false;
    }
    field = blob.substr(sizeof size, size);
    blob.remove_prefix(sizeof size + size);
    return true;
}

void append_string(std::string& blob, std::string_view field) {
    const auto size = static_cast<uint32_t>(field.size());
    for (const int shift : {24, 16, 8, 0}) {
        blob += static_cast<char>(size >> shift & 0xff);
    }
    blob += field;
}

bool is_negative(std::string_view number) {
    return !number.empty() && (static_cast<unsigned char>(number.front()) & 0x80) != 0;
}

/// A positive number in its wire format: a leading zero byte keeps it from being read as negative.
void append_number(std::string& blob, const std::string& number) {
    append_string(blob, is_negative(number) ? std::string(1, '\0') + number : number);
}

std::string_view without_zeros(std::string_view number) {
    const size_t first = number.find_first_not_of('\0');
    return first == std::string_view::npos ? std::string_view() : number.substr(first);
}

bool is_odd(std::string_view number) {
    return !number.empty() && (static_cast<unsigned char>(number.back()) & 1) != 0;
}

platform_status check_exponent(std::string_view exponent) {
    const bool is_one = exponent.size() == 1 && exponent.front() == 1;
    if (!is_odd(exponent) || is_one || exponent.size() > exponent_size_max) {
        return KEY_WRONG_EXPONENT;
    }
    return PLATFORM_OK;
}

uint32_t bits_of(std::string_view number) {
    if (number.empty()) {
        return 0;
    }
    const auto first = static_cast<unsigned char>(number.front());
    return static_cast<uint32_t>((number.size() - 1) * 8 + static_cast<size_t>(std::bit_width(first)));
}

platform_status check_modulus(std::string_view modulus) {
    if (!is_odd(modulus)) {
        return KEY_WRONG_MODULUS;
    }
    const uint32_t bits = bits_of(modulus);
    if (bits < bits_min) {
        return KEY_TOO_SMALL;
    }
    if (bits > bits_max) {
        return KEY_TOO_LARGE;
    }
    return PLATFORM_OK;
}

/// Parses the decoded key: its type again, exponent and modulus.
platform_status read_blob(std::string_view blob, rsa_public_key& key) {
    std::string_view type;
    if (!take_string(blob, type)) {
        return KEY_CUT_OFF;
    }
    if (type != key_type) {
        return KEY_TYPES_DIFFER;
    }
    std::string_view exponent;
    std::string_view modulus;
    if (!take_string(blob, exponent) || !take_string(blob, modulus)) {
        return KEY_CUT_OFF;
    }
    if (!blob.empty()) {
        return KEY_TRAILING_BYTES;
    }
    platform_status status =
        is_negative(exponent) ? platform_status{KEY_WRONG_EXPONENT} : check_exponent(without_zeros(exponent));
    if (status == PLATFORM_OK) {
        status = is_negative(modulus) ? platform_status{KEY_WRONG_MODULUS} : check_modulus(without_zeros(modulus));
    }
    if (status == PLATFORM_OK) {
        key = {std::string(without_zeros(modulus)), std::string(without_zeros(exponent))};
    }
    return status;
}

std::string_view take_word(std::string_view& text) {
    const size_t end = text.find_first_of(blanks);
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(word.size());
    const size_t next = text.find_first_not_of(blanks);
    text.remove_prefix(next == std::string_view::npos ? text.size() : next);
    return word;
}

std::string blob_of(const rsa_public_key& key) {
    std::string blob;
    append_string(blob, key_type);
    append_number(blob, key.exponent);
    append_number(blob, key.modulus);
    return blob;
}

}  // namespace

platform_status key_text_read(std::string_view text, rsa_public_key& key) {
    if (take_word(text) != key_type) {
        return KEY_OTHER_TYPE;
    }
    std::string blob;
    const platform_status status = base64_decode(take_word(text), blob);
    return status == PLATFORM_OK ? read_blob(blob, key) : status;
}

std::string key_text_write(const rsa_public_key& key) {
    return std::string(key_type) + ' ' + base64_encode(blob_of(key));
}

uint32_t key_bits(const rsa_public_key& key) {
    return bits_of(key.modulus);
}

std::string key_fingerprint(const rsa_public_key& key) {
    std::array<char, EVP_MAX_MD_SIZE> digest = {};
    size_t size = 0;
    const std::string blob = blob_of(key);
    if (EVP_Q_digest(nullptr, "SHA256", nullptr, blob.data(), blob.size(),
                     reinterpret_cast<unsigned char*>(digest.data()), &size) != 1) {
        return {};
    }
    std::string text = base64_encode({digest.data(), size});
    text.erase(text.find_last_not_of('=') + 1);
    return "SHA256:" + text;
}
