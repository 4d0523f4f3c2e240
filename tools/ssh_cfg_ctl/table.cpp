#include "ssh_cfg_ctl/table.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr size_t gap = 2;  ///< between columns
/// No column is made narrower than this, nor any value of a list.
constexpr size_t narrowest = 8;
/// Where names of algorithms, users and hosts may be broken.
constexpr std::string_view name_breaks = " ,-@.:/";

bool begins_character(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) != 0x80;
}

/// The number of bytes in the first `width` characters.
size_t bytes_of(std::string_view text, size_t width) {
    size_t bytes = 0;
    for (; bytes < text.size(); bytes++) {
        if (begins_character(text[bytes]) && width-- == 0) {
            return bytes;
        }
    }
    return bytes;
}

std::string_view without_blanks(std::string_view text) {
    const size_t first = text.find_first_not_of(' ');
    const size_t last = text.find_last_not_of(' ');
    return first == std::string_view::npos ? std::string_view() : text.substr(first, last - first + 1);
}

size_t width_of(const ctl_cell& cell) {
    size_t width = 0;
    for (const std::string& line : cell) {
        width = std::max(width, ctl_text_width(line));
    }
    return width;
}

ctl_cell wrapped(const ctl_cell& cell, size_t width, std::string_view breaks) {
    ctl_cell lines;
    for (const std::string& line : cell) {
        for (std::string& part : ctl_wrapped(line, width, breaks)) {
            lines.push_back(std::move(part));
        }
    }
    return lines;
}

using table_lines = std::vector<std::vector<ctl_cell>>;

/// The headings and all rows; texts that fit into their columns stay unchanged.
table_lines wrapped_lines(const ctl_table& table, const std::vector<size_t>& widths) {
    table_lines lines(1);
    for (size_t column = 0; column < table.columns.size(); column++) {
        lines[0].push_back(ctl_wrapped(table.columns[column].heading, widths[column], " "));
    }
    for (const std::vector<ctl_cell>& row : table.rows) {
        std::vector<ctl_cell>& cells = lines.emplace_back();
        for (size_t column = 0; column < row.size(); column++) {
            cells.push_back(wrapped(row[column], widths[column], name_breaks));
        }
    }
    return lines;
}

std::vector<size_t> widths_of(const table_lines& lines) {
    std::vector<size_t> widths(lines[0].size());
    for (const std::vector<ctl_cell>& cells : lines) {
        for (size_t column = 0; column < cells.size(); column++) {
            widths[column] = std::max(widths[column], width_of(cells[column]));
        }
    }
    return widths;
}

size_t line_width(const std::vector<size_t>& widths) {
    return std::accumulate(widths.begin(), widths.end(), gap * (widths.empty() ? 0 : widths.size() - 1));
}

/// Makes the widest column that may shrink one character narrower. Returns false if there is none.
bool narrow(const ctl_table& table, std::vector<size_t>& widths) {
    size_t* widest = nullptr;
    for (size_t column = 0; column < widths.size(); column++) {
        const bool may_shrink = !table.columns[column].keeps_width && widths[column] > narrowest;
        if (may_shrink && (widest == nullptr || widths[column] > *widest)) {
            widest = &widths[column];
        }
    }
    if (widest != nullptr) {
        --*widest;
    }
    return widest != nullptr;
}

std::string row_text(const std::vector<ctl_cell>& cells, const std::vector<size_t>& widths, size_t indent) {
    size_t height = 0;
    for (const ctl_cell& cell : cells) {
        height = std::max(height, cell.size());
    }
    std::string text;
    for (size_t line = 0; line < height; line++) {
        std::string columns(indent, ' ');
        for (size_t column = 0; column < cells.size(); column++) {
            const std::string_view part = line < cells[column].size() ? cells[column][line] : std::string_view();
            columns += ctl_padded(part, widths[column] + gap);
        }
        columns.erase(columns.find_last_not_of(' ') + 1);
        text += columns + '\n';
    }
    return text;
}

std::string lists_text(const ctl_table& table, size_t width, size_t indent) {
    std::string text;
    for (const std::vector<ctl_cell>& row : table.rows) {
        std::vector<ctl_list_row> list;
        for (size_t column = 0; column < row.size(); column++) {
            list.push_back({table.columns[column].heading, row[column], name_breaks});
        }
        text += (text.empty() ? "" : "\n") + ctl_list_text(list, width, indent);
    }
    return text;
}

}  // namespace

size_t ctl_text_width(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), begins_character));
}

std::string ctl_padded(std::string_view text, size_t width) {
    const size_t own = ctl_text_width(text);
    return std::string(text) + std::string(own < width ? width - own : 0, ' ');
}

std::vector<std::string> ctl_wrapped(std::string_view text, size_t width, std::string_view breaks) {
    std::vector<std::string> lines;
    while (width > 0 && ctl_text_width(text) > width) {
        size_t end = bytes_of(text, width);
        const size_t last_break = text.substr(0, end).find_last_of(breaks);
        // A blank may come right after the last column of the line.
        if (text[end] != ' ' && last_break != std::string_view::npos && last_break > 0) {
            end = last_break + 1;
        }
        lines.emplace_back(without_blanks(text.substr(0, end)));
        text = text.substr(end);
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    }
    if (!text.empty() || lines.empty()) {
        lines.emplace_back(text);
    }
    return lines;
}

std::string ctl_table_text(const ctl_table& table, size_t width, size_t indent) {
    std::vector<size_t> widths = widths_of(wrapped_lines(table, std::vector<size_t>(table.columns.size())));
    while (width > 0 && indent + line_width(widths) > width) {
        if (!narrow(table, widths)) {
            return lists_text(table, width, indent);
        }
    }
    const table_lines lines = wrapped_lines(table, widths);
    // Wrapping may have made columns narrower still.
    widths = widths_of(lines);
    std::string text;
    for (const std::vector<ctl_cell>& cells : lines) {
        text += row_text(cells, widths, indent);
    }
    return text;
}

std::string ctl_list_text(const std::vector<ctl_list_row>& rows, size_t width, size_t indent) {
    size_t label_width = 0;
    for (const ctl_list_row& row : rows) {
        label_width = std::max(label_width, ctl_text_width(row.label) + 1);
    }
    const size_t left = indent + label_width + gap;
    const size_t value_width = width == 0 ? 0 : std::max(width > left ? width - left : 0, narrowest);
    std::string text;
    for (const ctl_list_row& row : rows) {
        text += row_text({{row.label + ':'}, wrapped(row.value, value_width, row.breaks)}, {label_width, 0}, indent);
    }
    return text;
}
