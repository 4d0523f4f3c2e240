#include "linux/datastore/schema_form.h"

#include <cctype>
#include <cstring>

#include "common/text.h"
#include "platform/datastore.h"

namespace {

constexpr uint32_t delete_character = 0x7f;

bool is_printable(uint32_t character) {
    return !text_is_unsafe(character);
}

/// In a file of keywords, a path ends at a blank, a quote or a comment.
bool is_of_path(uint32_t character) {
    const bool ends = character < delete_character && strchr(" \"'#\\", static_cast<int>(character)) != nullptr;
    return is_printable(character) && !ends;
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
    return is_printable(character) || character == '\n' || character == '\t';
}

struct charset_row {
    schema_charset charset;
    bool (*has)(uint32_t character);
    const char* kept_from_start;  ///< characters that a text must not begin with
    const char* words;            ///< format of the description: shortest and greatest length, help
};

constexpr charset_row charsets[] = {
    {schema_charset::printable, is_printable, "",
     "a UTF-8 string of %lld to %lld bytes without control, bidirectional or zero-width characters (%s)"},
    {schema_charset::path, is_of_path, "",
     "a path of %lld to %lld bytes without blanks, quotes, backslashes, '#' or control, bidirectional or zero-width "
     "characters (%s)"},
    {schema_charset::word, is_word, "",
     "a string of %lld to %lld characters without blanks, quotes, commas or backslashes (%s)"},
    {schema_charset::algorithm_name, is_algorithm_name, "-.",
     "%lld to %lld letters, digits, '_', '-', '.', '@' or '+', not beginning with '-' or '.' (%s)"},
    {schema_charset::name, is_name, "-.",
     "%lld to %lld letters, digits, '_', '-' or '.', not beginning with '-' or '.' (%s)"},
    {schema_charset::delimited, is_of_lines, "",
     "a UTF-8 string of %lld to %lld bytes enclosed in matching delimiters (any punctuation character), such as "
     "#text#, without control characters other than newline and tab, and without bidirectional or zero-width "
     "characters (%s)"},
};

const charset_row& row_of(schema_charset charset) {
    return charsets[static_cast<size_t>(charset)];
}

std::string number_in_words(const schema_form& form) {
    return text_format("a number from %lld to %lld (%s)", static_cast<long long>(form.lowest),
                       static_cast<long long>(form.highest), form.help);
}

}  // namespace

bool schema_has_charset(std::string_view text, schema_charset charset) {
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

bool schema_is_delimited(std::string_view text) {
    const unsigned char delimiter = text.empty() ? 0 : static_cast<unsigned char>(text.front());
    // A letter as delimiter would silently change a text whose delimiters are missing.
    return text.size() >= 2 && text.back() == text.front() && delimiter < delete_character && ispunct(delimiter) != 0;
}

std::string schema_form_in_words(const schema_form& form) {
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
