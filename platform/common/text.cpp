#include "common/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <iterator>

namespace {

struct utf8_form {
    uint32_t smallest;   ///< smaller characters must use a shorter form
    unsigned char mask;  ///< bits of the first byte that identify the form
    unsigned char lead;  ///< value of these bits
    uint8_t length;      ///< bytes
};

constexpr utf8_form utf8_forms[] = {
    {0, 0x80, 0x00, 1},
    {0x80, 0xe0, 0xc0, 2},
    {0x800, 0xf0, 0xe0, 3},
    {0x10000, 0xf8, 0xf0, 4},
};

bool is_scalar_value(uint32_t character) {
    return character <= 0x10ffff && (character < 0xd800 || character > 0xdfff);
}

/// Reads a character of a known form; 0 if it is truncated, overlong or invalid.
size_t decode(std::string_view text, const utf8_form& form, uint32_t& character) {
    if (text.size() < form.length) {
        return 0;
    }
    uint32_t value = static_cast<unsigned char>(text[0]) & static_cast<unsigned char>(~form.mask);
    for (size_t i = 1; i < form.length; i++) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xc0) != 0x80) {
            return 0;
        }
        value = value << 6 | (byte & 0x3f);
    }
    if (value < form.smallest || !is_scalar_value(value)) {
        return 0;
    }
    character = value;
    return form.length;
}

struct character_range {
    uint32_t first;
    uint32_t last;
};

/// Characters that a terminal or a log might interpret, or that make one text look like another.
constexpr character_range unsafe_characters[] = {
    {0x00, 0x1f},        // C0
    {0x7f, 0x9f},        // DEL and C1
    {0x61c, 0x61c},      // Arabic letter mark
    {0x180e, 0x180e},    // Mongolian vowel separator, zero width
    {0x200b, 0x200f},    // zero width, direction marks
    {0x2028, 0x202e},    // line and paragraph separators, direction embeddings
    {0x2060, 0x206f},    // zero width, direction isolates
    {0xfeff, 0xfeff},    // byte order mark
    {0xfff9, 0xfffb},    // interlinear annotation
    {0xe0000, 0xe007f},  // tags
};

/// What is escaped besides the unsafe characters.
struct escape_style {
    std::string_view backslashed = {};  ///< escaped with a backslash
    uint32_t highest_shown = 0x10ffff;  ///< characters above it are escaped as \xNN
};

/// The first character of a text in the form shown; its first byte if the text does not begin with a character.
std::string first_escaped(std::string_view& text, const escape_style& style) {
    uint32_t character = 0;
    const size_t length = text_utf8_character(text, character);
    const std::string_view bytes = text.substr(0, std::max<size_t>(length, 1));
    text.remove_prefix(bytes.size());
    if (length == 0 || text_is_unsafe(character) || character > style.highest_shown) {
        std::string escaped;
        for (const char byte : bytes) {
            escaped += text_format("\\x%02x", static_cast<unsigned char>(byte));
        }
        return escaped;
    }
    const bool has_backslash = length == 1 && style.backslashed.find(bytes.front()) != std::string_view::npos;
    return std::string(has_backslash ? "\\" : "").append(bytes);
}

std::string escape(std::string_view text, size_t size_max, const escape_style& style) {
    std::string shown;
    while (!text.empty()) {
        const std::string next = first_escaped(text, style);
        if (shown.size() + next.size() > size_max) {
            return shown + "...";
        }
        shown += next;
    }
    return shown;
}

}  // namespace

std::string text_format(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

size_t text_vformat_into(char* buffer, size_t size, const char* format, va_list arguments) noexcept {
    const int error = errno;
    const int wanted = vsnprintf(buffer, size, format, arguments);
    errno = error;
    if (wanted < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return std::min(static_cast<size_t>(wanted), size - 1);
}

size_t text_format_into(char* buffer, size_t size, const char* format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    const size_t length = text_vformat_into(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

size_t text_utf8_character(std::string_view text, uint32_t& character) noexcept {
    if (text.empty()) {
        return 0;
    }
    const auto first = static_cast<unsigned char>(text[0]);
    for (const utf8_form& form : utf8_forms) {
        if ((first & form.mask) == form.lead) {
            return decode(text, form, character);
        }
    }
    return 0;
}

bool text_is_utf8(std::string_view text) noexcept {
    uint32_t character = 0;
    while (!text.empty()) {
        const size_t length = text_utf8_character(text, character);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

bool text_is_unsafe(uint32_t character) noexcept {
    return std::any_of(
        std::begin(unsafe_characters), std::end(unsafe_characters),
        [character](const character_range& range) { return range.first <= character && character <= range.last; });
}

std::string text_escape(std::string_view text, size_t size_max) {
    return escape(text, size_max, {});
}

std::string text_escape_quoted(std::string_view text, size_t size_max) {
    return escape(text, size_max, {.backslashed = "\"\\"});
}

std::string text_escape_to_ascii(std::string_view text, size_t size_max) {
    return escape(text, size_max, {.highest_shown = 0x7f});
}

std::string text_utc_time(int64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    tm parts = {};
    char text[32] = "";
    if (gmtime_r(&time, &parts) != nullptr) {
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    }
    return text;
}
