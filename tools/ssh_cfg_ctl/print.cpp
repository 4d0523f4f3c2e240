#include "ssh_cfg_ctl/print.h"

#include <algorithm>
#include <vector>

#include "common/text.h"
#include "ssh_cfg_ctl/table.h"

namespace {

std::string heading(const std::string& name) {
    std::string words = text_escape(name, ctl_shown_max);
    std::replace(words.begin(), words.end(), '_', ' ');
    return words;
}

using table_cells = std::vector<std::vector<std::string>>;

std::vector<std::string> names_of(const control_json& records) {
    std::vector<std::string> names;
    for (const control_json& record : records) {
        for (const auto& [name, value] : record.items()) {
            if (std::find(names.begin(), names.end(), name) == names.end()) {
                names.push_back(name);
            }
        }
    }
    return names;
}

table_cells cells_of(const control_json& records, const std::vector<std::string>& names) {
    table_cells cells(1);
    for (const std::string& name : names) {
        cells[0].push_back(heading(name));
    }
    for (const control_json& record : records) {
        std::vector<std::string>& line = cells.emplace_back();
        for (const std::string& name : names) {
            const auto value = record.find(name);
            line.push_back(value == record.end() ? "-" : ctl_value_text(*value));
        }
    }
    return cells;
}

std::vector<size_t> widths_of(const table_cells& cells) {
    std::vector<size_t> widths(cells[0].size());
    for (const std::vector<std::string>& line : cells) {
        for (size_t column = 0; column < line.size(); column++) {
            widths[column] = std::max(widths[column], ctl_text_width(line[column]));
        }
    }
    return widths;
}

std::string line_text(const std::vector<std::string>& line, const std::vector<size_t>& widths) {
    std::string text;
    for (size_t column = 0; column < line.size(); column++) {
        text += (column == 0 ? "" : "  ") + ctl_padded(line[column], widths[column]);
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text + '\n';
}

bool all_plain(const control_json& records) {
    return std::all_of(records.begin(), records.end(), [](const control_json& record) {
        return record.is_object() && std::none_of(record.begin(), record.end(),
                                                  [](const control_json& value) { return value.is_structured(); });
    });
}

std::string blocks_text(const control_json& records, size_t indent);

std::string block_text(const control_json& record, size_t indent) {
    size_t width = 0;
    for (const auto& [name, value] : record.items()) {
        width = std::max(width, value.is_structured() ? 0 : ctl_text_width(heading(name)));
    }
    std::string text;
    for (const auto& [name, value] : record.items()) {
        text += std::string(indent, ' ');
        if (value.is_structured()) {
            text += heading(name) + (value.empty() ? ": none\n" : ":\n" + blocks_text(value, indent + 2));
        } else {
            text += ctl_padded(heading(name) + ":", width + 1) + ' ' + ctl_value_text(value) + '\n';
        }
    }
    return text;
}

std::string blocks_text(const control_json& records, size_t indent) {
    if (records.is_object()) {
        return block_text(records, indent);
    }
    std::string text;
    for (const control_json& record : records) {
        const bool structured = record.is_structured();
        text += text.empty() || !structured ? "" : "\n";
        text += structured ? blocks_text(record, indent) : std::string(indent, ' ') + ctl_value_text(record) + '\n';
    }
    return text;
}

}  // namespace

std::string ctl_value_text(const control_json& value) {
    if (value.is_null()) {
        return "-";
    }
    if (value.is_boolean()) {
        return value.get<bool>() ? "yes" : "no";
    }
    return text_escape(value.is_string() ? value.get_ref<const std::string&>() : control_json_text(value),
                       ctl_shown_max);
}

std::string ctl_member_text(const control_json& object, const char* name) {
    const auto found = object.is_object() ? object.find(name) : object.end();
    return ctl_value_text(found == object.end() ? control_json() : *found);
}

std::string ctl_records_text(const control_json& records, size_t width) {
    if (records.empty()) {
        return {};
    }
    if (!all_plain(records)) {
        return blocks_text(records, 0);
    }
    const table_cells cells = cells_of(records, names_of(records));
    const std::vector<size_t> widths = widths_of(cells);
    size_t line_width = 0;
    for (const size_t column : widths) {
        line_width += column + 2;
    }
    if (width > 0 && line_width > width + 2) {
        return blocks_text(records, 0);
    }
    std::string text;
    for (const std::vector<std::string>& line : cells) {
        text += line_text(line, widths);
    }
    return text;
}

std::string ctl_record_text(const control_json& record) {
    return block_text(record, 0);
}

std::string ctl_data_text(const control_json& data, size_t width) {
    if (data.is_array()) {
        return ctl_records_text(data, width);
    }
    return data.is_object() ? ctl_record_text(data) : ctl_value_text(data) + '\n';
}

std::string ctl_configuration_text(const control_json& items) {
    std::string text;
    for (const auto& [path, value] : items.items()) {
        text += text.empty() ? "{\n" : ",\n";
        text += "  " + control_json_text(path) + ": " + control_json_text(value);
    }
    return text.empty() ? "{}\n" : text + "\n}\n";
}
