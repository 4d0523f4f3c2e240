#include "linux/datastore/schema_text.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/datastore.h"

namespace {

constexpr uint32_t first_printable = 0x20;
constexpr uint32_t delete_character = 0x7f;
constexpr uint32_t last_control = 0x9f;

bool is_control(uint32_t character) {
    return character < first_printable || (character >= delete_character && character <= last_control);
}

bool is_printable(uint32_t character) {
    return !is_control(character);
}

bool is_word(uint32_t character) {
    return character > ' ' && character < delete_character && strchr("\"'`,\\", static_cast<int>(character)) == nullptr;
}

bool is_name(uint32_t character) {
    return character < delete_character && datastore_reserved_character(static_cast<int>(character)) == 0;
}

bool is_algorithm_name(uint32_t character) {
    return is_name(character) || character == '@' || character == '+';
}

bool is_of_lines(uint32_t character) {
    return !is_control(character) || character == '\n' || character == '\t';
}

struct charset_row {
    schema_charset charset;
    bool (*has)(uint32_t character);
    const char* kept_from_start;  ///< characters that a text must not begin with
    const char* words;            ///< format of the form in words: shortest, greatest length, help
};

constexpr charset_row charsets[] = {
    {schema_charset::printable, is_printable, "",
     "a UTF-8 string of %lld to %lld bytes without control characters (%s)"},
    {schema_charset::word, is_word, "",
     "a string of %lld to %lld characters without blanks, quotes, commas or backslashes (%s)"},
    {schema_charset::algorithm_name, is_algorithm_name, "-.",
     "%lld to %lld letters, digits, '_', '-', '.', '@' or '+', not beginning with '-' or '.' (%s)"},
    {schema_charset::name, is_name, "-.",
     "%lld to %lld letters, digits, '_', '-' or '.', not beginning with '-' or '.' (%s)"},
    {schema_charset::delimited, is_of_lines, "",
     "a UTF-8 string of %lld to %lld bytes enclosed in matching delimiters (any punctuation character), such as "
     "#text#, without control characters other than newline and tab (%s)"},
};

const charset_row& row_of(schema_charset charset) {
    return charsets[static_cast<size_t>(charset)];
}

struct utf8_form {
    uint32_t smallest;   ///< a smaller character has a shorter form, which it must take
    unsigned char mask;  ///< bits of the first byte that tell the form
    unsigned char lead;  ///< what they are
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

/// Reads a character of a known form; 0 when it is cut off, overlong or none.
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

std::string number_in_words(const schema_form& form) {
    return text_format("a number from %lld to %lld (%s)", static_cast<long long>(form.lowest),
                       static_cast<long long>(form.highest), form.help);
}

}  // namespace

std::string text_format(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    va_end(arguments);
    return text;
}

size_t text_utf8_character(std::string_view text, uint32_t& character) {
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

std::string text_escape(std::string_view text, size_t limit) {
    std::string shown;
    for (size_t characters = 0; !text.empty(); characters++) {
        if (characters == limit) {
            return shown + "...";
        }
        uint32_t character = 0;
        const size_t length = text_utf8_character(text, character);
        if (length == 0 || is_control(character)) {
            for (size_t i = 0; i < (length == 0 ? 1 : length); i++) {
                shown += text_format("\\x%02x", static_cast<unsigned char>(text[i]));
            }
        } else if (character == '"' || character == '\\') {
            shown += '\\';
            shown += text[0];
        } else {
            shown += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return shown;
}

bool text_has_charset(std::string_view text, schema_charset charset) {
    const charset_row& row = row_of(charset);
    if (!text.empty() && text[0] != '\0' && strchr(row.kept_from_start, text[0]) != nullptr) {
        return false;
    }
    while (!text.empty()) {
        uint32_t character = 0;
        const size_t length = text_utf8_character(text, character);
        if (length == 0 || !row.has(character)) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

bool text_is_delimited(std::string_view text) {
    const unsigned char delimiter = text.empty() ? 0 : static_cast<unsigned char>(text.front());
    // A letter would turn a text that lost its delimiters, or never had any, into another one.
    return text.size() >= 2 && text.back() == text.front() && delimiter < delete_character && ispunct(delimiter) != 0;
}

std::string text_of_form(const schema_form& form) {
    switch (form.kind) {
        case schema_kind::number:
            return number_in_words(form);
        case schema_kind::flag:
            return text_format("true or false (%s)", form.help);
        case schema_kind::presence:
            return text_format("true (%s), or deletion of the item", form.help);
        case schema_kind::text:
            return text_format(row_of(form.charset).words, static_cast<long long>(form.lowest),
                               static_cast<long long>(form.highest), form.help);
        case schema_kind::tuple:
            break;
    }
    return form.help;
}
