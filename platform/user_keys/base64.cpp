#include "user_keys/base64.h"

namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t group = 4;  ///< characters for three bytes
constexpr char padding = '=';

/// The number of padding characters at the end: at most the two that may be needed.
size_t padding_of(std::string_view text) {
    size_t count = 0;
    while (count < 2 && count < text.size() && text[text.size() - 1 - count] == padding) {
        count++;
    }
    return count;
}

}  // namespace

platform_status base64_decode(std::string_view text, std::string& bytes) {
    const size_t padded = padding_of(text);
    const std::string_view digits = text.substr(0, text.size() - padded);
    std::string decoded;
    uint32_t held = 0;
    uint32_t bits = 0;
    for (const char digit : digits) {
        const size_t value = alphabet.find(digit);
        if (value == std::string_view::npos) {
            return KEY_NOT_BASE64;
        }
        held = (held << 6 | static_cast<uint32_t>(value)) & 0xffff;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            decoded += static_cast<char>(held >> bits & 0xff);
        }
    }
    if (text.empty() || (text.size() % group != 0 && padded == 0)) {
        return KEY_CUT_OFF;
    }
    const bool bits_left_over = (held & ((1U << bits) - 1)) != 0;
    if (text.size() % group != 0 || bits_left_over) {
        return KEY_NOT_BASE64;
    }
    bytes = std::move(decoded);
    return PLATFORM_OK;
}

std::string base64_encode(std::string_view bytes) {
    std::string text;
    uint32_t held = 0;
    uint32_t bits = 0;
    for (const char byte : bytes) {
        held = (held << 8 | static_cast<unsigned char>(byte)) & 0xffff;
        for (bits += 8; bits >= 6; bits -= 6) {
            text += alphabet[held >> (bits - 6) & 0x3f];
        }
    }
    if (bits > 0) {
        text += alphabet[held << (6 - bits) & 0x3f];
    }
    text.append((group - text.size() % group) % group, padding);
    return text;
}
