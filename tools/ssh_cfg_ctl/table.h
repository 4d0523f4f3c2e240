/// Tables and lists that fit the line width. Callers must escape texts for the terminal first.
#ifndef SSH_CFG_CTL_TABLE_H
#define SSH_CFG_CTL_TABLE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// The number of columns of a text on a terminal, which is its number of characters.
size_t ctl_text_width(std::string_view text);

/// A text padded with trailing blanks to `width` columns; a longer one unchanged.
std::string ctl_padded(std::string_view text, size_t width);

/// Splits a text into lines of at most `width` columns (0: one line), after one of the characters `breaks` if possible,
/// without trailing blanks. An empty text is one empty line.
std::vector<std::string> ctl_wrapped(std::string_view text, size_t width, std::string_view breaks);

struct ctl_table_column {
    std::string heading;
    bool keeps_width;  ///< is never narrowed; adjacent lines in the same row stay aligned with it
};

/// Lines of one cell, from top to bottom.
using ctl_cell = std::vector<std::string>;

struct ctl_table {
    std::vector<ctl_table_column> columns;
    std::vector<std::vector<ctl_cell>> rows;  ///< as many cells as there are columns
};

/// The table with its headings in lines of at most `width` columns (0: unlimited), each indented by `indent` blanks.
/// The widest columns are narrowed first, and their texts continue on the next line. A table that would become
/// unreadable is printed as one list per row.
std::string ctl_table_text(const ctl_table& table, size_t width, size_t indent);

struct ctl_list_row {
    std::string label;
    ctl_cell value;
    std::string_view breaks;  ///< characters after which the value may be wrapped
};

/// Lines of label and value; further lines of a value are aligned below the first.
std::string ctl_list_text(const std::vector<ctl_list_row>& rows, size_t width, size_t indent);

#endif
