/// The text of one rule, built piece by piece in a bounded buffer.
#ifndef ACL_RULE_TEXT_H
#define ACL_RULE_TEXT_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>

inline constexpr size_t rule_text_size = 600;

/// `length` grows by the full size of a piece even if the piece does not fit: once it reaches the end, further pieces
/// are dropped. The text is always NUL-terminated and never longer than rule_text_size - 1.
struct rule_text {
    char buffer[rule_text_size] = {};
    size_t length = 0;
};

/// An argument of a piece: a text for "%s", a number for "%d" and "%u".
struct piece_argument {
    const char* text;
    uint32_t number;

    piece_argument(const char* value) : text(value), number(0) {}
    piece_argument(uint32_t value) : text(nullptr), number(value) {}
};

/// Appends a piece. Its format supports only "%s", "%d" and "%u" (all numbers here are unsigned), which takes a tenth
/// of the time of snprintf: lists have thousands of entries.
void append_piece(rule_text& rule, const char* format, std::initializer_list<piece_argument> arguments = {});

#endif
