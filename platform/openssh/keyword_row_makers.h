/// Short ways to write rows of a keyword table.
#ifndef OPENSSH_KEYWORD_ROW_MAKERS_H
#define OPENSSH_KEYWORD_ROW_MAKERS_H

#include "openssh/keyword_table.h"

namespace openssh {

constexpr keyword_row pass(std::string_view keyword, value_form form, repetition repeats = repetition::once,
                           std::string_view otherwise = {}) {
    return {.keyword = keyword, .how = treatment::pass, .form = form, .repeats = repeats, .otherwise = otherwise};
}

constexpr keyword_row list(std::string_view keyword, algorithm_kind kind, std::string_view written_as = {}) {
    return {.keyword = keyword, .how = treatment::list, .written_as = written_as, .kind = kind};
}

constexpr keyword_row leave_out(std::string_view keyword, const char* reason) {
    return {.keyword = keyword, .how = treatment::leave_out, .reason = reason};
}

/// A setting of OpenSSH's that the agent never writes, for files that an operator has edited; the program itself judges it.
constexpr keyword_row stock(std::string_view keyword) {
    return pass(keyword, is_any_text);
}

constexpr keyword_row stock_repeated(std::string_view keyword) {
    return pass(keyword, is_any_text, repetition::by_value);
}

}  // namespace openssh

#endif
