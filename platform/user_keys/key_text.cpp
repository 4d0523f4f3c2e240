#include "user_keys/key_text.h"

#include <bit>

#include "user_keys/base64.h"
#include "user_keys/wire_string.h"

namespace {

constexpr std::string_view key_type = "ssh-rsa";
constexpr std::string_view blanks = " \t\r\n";

constexpr uint32_t bits_min = 1024;                       ///< sshd accepts no smaller key
constexpr uint32_t der_bits_max = KEY_STORE_DER_MAX * 8;  ///< an upper bound; the DER form has the exact limit
/// OpenSSL refuses to verify with a larger one.
constexpr size_t exponent_size_max = sizeof(uint64_t);

bool is_negative(std::string_view number) {
    return !number.empty() && (static_cast<unsigned char>(number.front()) & 0x80) != 0;
}

/// A positive number in its wire format: a leading zero byte keeps it from being read as negative.
void append_number(std::string& blob, const std::string& number) {
    wire_append_string(blob, is_negative(number) ? std::string(1, '\0') + number : number);
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

platform_status check_modulus(std::string_view modulus, uint32_t bits_max) {
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

std::string_view take_word(std::string_view& text) {
    const size_t end = text.find_first_of(blanks);
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(word.size());
    const size_t next = text.find_first_not_of(blanks);
    text.remove_prefix(next == std::string_view::npos ? text.size() : next);
    return word;
}

}  // namespace

platform_status key_blob_read(std::string_view blob, uint32_t bits_max, rsa_public_key& key) {
    std::string_view type;
    if (!wire_take_string(blob, type)) {
        return KEY_CUT_OFF;
    }
    if (type != key_type) {
        return KEY_TYPES_DIFFER;
    }
    std::string_view exponent;
    std::string_view modulus;
    if (!wire_take_string(blob, exponent) || !wire_take_string(blob, modulus)) {
        return KEY_CUT_OFF;
    }
    if (!blob.empty()) {
        return KEY_TRAILING_BYTES;
    }
    platform_status status =
        is_negative(exponent) ? platform_status{KEY_WRONG_EXPONENT} : check_exponent(without_zeros(exponent));
    if (status == PLATFORM_OK) {
        status =
            is_negative(modulus) ? platform_status{KEY_WRONG_MODULUS} : check_modulus(without_zeros(modulus), bits_max);
    }
    if (status == PLATFORM_OK) {
        key = {std::string(without_zeros(modulus)), std::string(without_zeros(exponent))};
    }
    return status;
}

std::string key_blob_write(const rsa_public_key& key) {
    std::string blob;
    wire_append_string(blob, key_type);
    append_number(blob, key.exponent);
    append_number(blob, key.modulus);
    return blob;
}

platform_status key_text_read(std::string_view text, rsa_public_key& key) {
    if (take_word(text) != key_type) {
        return KEY_OTHER_TYPE;
    }
    std::string blob;
    const platform_status status = base64_decode(take_word(text), blob);
    return status == PLATFORM_OK ? key_blob_read(blob, der_bits_max, key) : status;
}

std::string key_text_write(const rsa_public_key& key) {
    return std::string(key_type) + ' ' + base64_encode(key_blob_write(key));
}

uint32_t key_bits(const rsa_public_key& key) {
    return bits_of(key.modulus);
}
