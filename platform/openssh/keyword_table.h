/// The treatment of each keyword of a server file and of the client's file.
#ifndef OPENSSH_KEYWORD_TABLE_H
#define OPENSSH_KEYWORD_TABLE_H

#include <string_view>

#include "openssh/keyword_row.h"

namespace openssh {

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
