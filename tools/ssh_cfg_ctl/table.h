/// Tables and lists that fit a line. Texts are taken as they are: who calls has made them fit for a terminal.
#ifndef SSH_CFG_CTL_TABLE_H
#define SSH_CFG_CTL_TABLE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Columns that a text takes on a terminal: its characters.
size_t ctl_text_width(std::string_view text);

/// A text with blanks behind it, `width` columns in all; a longer one as it is.
std::string ctl_padded(std::string_view text, size_t width);

/// Cuts a text into lines of at most `width` columns (0: one line), behind one of the characters `breaks` where that is
/// possible, without the blanks at the lines' ends. An empty text is one empty line.
std::vector<std::string> ctl_wrapped(std::string_view text, size_t width, std::string_view breaks);

struct ctl_table_column {
    std::string heading;
    bool keeps_width;  ///< is never made narrower; what stands beside it in the same row stays beside it
};

/// Lines that stand below each other.
using ctl_cell = std::vector<std::string>;

struct ctl_table {
    std::vector<ctl_table_column> columns;
    std::vector<std::vector<ctl_cell>> rows;  ///< as many cells as there are columns
};

/// The table with its headings in lines of at most `width` columns (0: as wide as it is), each behind `indent` blanks.
/// The widest columns are made narrower first, their texts going on in the next line. A table that would become
/// unreadable is given as one list per row.
std::string ctl_table_text(const ctl_table& table, size_t width, size_t indent);

struct ctl_list_row {
    std::string label;
    ctl_cell value;
    std::string_view breaks;  ///< where the value's lines may be cut
};

/// Lines of label and value, a value's further lines below its first.
std::string ctl_list_text(const std::vector<ctl_list_row>& rows, size_t width, size_t indent);

#endif
