/// What becomes of each keyword of a server file, and of each of the client's file.
#ifndef OPENSSH_KEYWORD_TABLE_H
#define OPENSSH_KEYWORD_TABLE_H

#include <string_view>

#include "openssh/algorithms.h"
#include "openssh/value_forms.h"

namespace openssh {

enum class treatment {
    pass,             ///< written as it stands when its form is right
    list,             ///< an algorithm list, cut to what is known and permitted
    additional_keys,  ///< key algorithms that are accepted besides sshd's own
    host_keys,        ///< one file or a comma-separated list of them
    fips_mode,        ///< not written: it decides how the lists are cut
    leave_out,        ///< stock sshd has no means, or the launcher decides
    end_of_settings,  ///< leaves out the line and everything behind it
};

/// Which later lines of the same keyword are left out, as sshd takes the first or fails at a second one.
enum class repetition { once, by_first_word, by_value };

struct keyword_row {
    std::string_view keyword;  ///< in the file; compared without regard to case
    treatment how;
    /// The keyword that is written, where it differs. Empty: the same.
    std::string_view written_as = {};
    value_form form = nullptr;  ///< for `pass`
    repetition repeats = repetition::once;
    algorithm_kind kind = algorithm_kind::cipher;  ///< for `list` and `additional_keys`
    /// For `pass`: the value that is written when the file has no good one. Empty: none is written.
    std::string_view otherwise = {};
    const char* reason = "";  ///< for `leave_out` and `end_of_settings`: told to the operator

    std::string_view output_keyword() const { return written_as.empty() ? keyword : written_as; }
};

struct keyword_rows {
    const keyword_row* first;
    const keyword_row* last;
    const keyword_row* begin() const { return first; }
    const keyword_row* end() const { return last; }
};

keyword_rows server_keyword_rows();
keyword_rows client_keyword_rows();

/// The row of a keyword, or null.
const keyword_row* find_keyword_row(const keyword_rows& rows, std::string_view keyword);

}  // namespace openssh

#endif
