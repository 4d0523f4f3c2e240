/// A row of a keyword table, which determines the treatment of one keyword; and short ways to write such rows.
#ifndef OPENSSH_KEYWORD_ROW_H
#define OPENSSH_KEYWORD_ROW_H

#include <string_view>

#include "openssh/algorithms.h"
#include "openssh/server_limits.h"
#include "openssh/value_forms.h"

namespace openssh {

enum class treatment {
    pass,             ///< written unchanged if its form is valid
    list,             ///< an algorithm list, filtered to known and permitted names
    additional_keys,  ///< key algorithms accepted in addition to sshd's own
    host_keys,        ///< one file or a comma-separated list of them
    limit,            ///< not written: a limit that the launcher enforces
    fips_mode,        ///< not written: determines how the lists are filtered
    leave_out,        ///< not supported by stock sshd, or decided by the launcher
    end_of_settings,  ///< ignores the line and everything after it
};

/// Which later lines of the same keyword are omitted, because sshd uses the first or rejects a second one.
enum class repetition { once, by_first_word, by_value };

struct keyword_row {
    std::string_view keyword;  ///< in the file; compared without regard to case
    treatment how;
    /// The keyword that is written, where it differs. Empty: the same.
    std::string_view written_as = {};
    value_form form = nullptr;  ///< for `pass`
    repetition repeats = repetition::once;
    algorithm_kind kind = algorithm_kind::cipher;  ///< for `list` and `additional_keys`
    /// For `list`: the position in the router's default list, which is in force if the file has no such line. Null: the
    /// program's own default is in force.
    algorithm_column default_rank = nullptr;
    /// For `pass`: the value to write if the file has no valid one. Empty: write none.
    std::string_view otherwise = {};
    uint32_t server_limits::*limited = nullptr;  ///< for `limit`
    const char* reason = "";                     ///< for `leave_out` and `end_of_settings`: shown to the operator

    std::string_view output_keyword() const { return written_as.empty() ? keyword : written_as; }
};

constexpr keyword_row pass(std::string_view keyword, value_form form, repetition repeats = repetition::once,
                           std::string_view otherwise = {}) {
    return {.keyword = keyword, .how = treatment::pass, .form = form, .repeats = repeats, .otherwise = otherwise};
}

constexpr keyword_row list(std::string_view keyword, algorithm_kind kind, std::string_view written_as = {}) {
    return {.keyword = keyword, .how = treatment::list, .written_as = written_as, .kind = kind};
}

constexpr keyword_row list_with_default(std::string_view keyword, algorithm_kind kind, algorithm_column default_rank) {
    return {.keyword = keyword, .how = treatment::list, .kind = kind, .default_rank = default_rank};
}

constexpr keyword_row limit(std::string_view keyword, uint32_t server_limits::*limited) {
    return {.keyword = keyword, .how = treatment::limit, .limited = limited};
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
