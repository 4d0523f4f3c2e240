#include "acl/rule_text.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace {

/// Stores what still fits and counts the rest.
void append_bytes(rule_text& rule, const char* bytes, size_t count) {
    if (rule.length < rule_text_size - 1) {
        const size_t room = rule_text_size - 1 - rule.length;
        memcpy(rule.buffer + rule.length, bytes, std::min(count, room));
    }
    rule.length += count;
}

void append_argument(rule_text& rule, const piece_argument& argument) {
    if (argument.text != nullptr) {
        append_bytes(rule, argument.text, strlen(argument.text));
        return;
    }
    char digits[10];  // a 32-bit number
    const auto end = std::to_chars(digits, digits + sizeof(digits), argument.number).ptr;
    append_bytes(rule, digits, static_cast<size_t>(end - digits));
}

}  // namespace

void append_piece(rule_text& rule, const char* format, std::initializer_list<piece_argument> arguments) {
    if (rule.length >= rule_text_size) {
        return;
    }
    const piece_argument* argument = arguments.begin();
    for (const char* rest = format; *rest != '\0';) {
        const char* conversion = strchrnul(rest, '%');
        append_bytes(rule, rest, static_cast<size_t>(conversion - rest));
        if (*conversion == '\0') {
            return;
        }
        if (argument != arguments.end()) {
            append_argument(rule, *argument++);
        }
        rest = conversion + 2;
    }
}
