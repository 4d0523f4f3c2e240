#include "ssh_cfg_ctl/item_help.h"

#include <string_view>
#include <utility>
#include <vector>

#include "common/text.h"
#include "ssh_cfg_ctl/print.h"
#include "ssh_cfg_ctl/table.h"

namespace {

std::string help_text_of(const control_json& object, const char* name) {
    const auto member = object.find(name);
    return member == object.end() ? "" : ctl_value_text(*member);
}

/// The stored value, as `get` prints it; empty if nothing is known about it.
std::string current_text(const control_json& item) {
    const auto current = item.find("current");
    if (current == item.end()) {
        return {};
    }
    return current->is_null() ? "not configured" : text_escape(control_json_text(*current), ctl_shown_max);
}

std::string item_text(const control_json& item, size_t width) {
    const std::pair<const char*, std::string> lines[] = {
        {"Short path", help_text_of(item, "short_path")},
        {"NAME", help_text_of(item, "name")},
        {"Value", help_text_of(item, "value")},
        {"Unit", help_text_of(item, "unit")},
        {"Default", help_text_of(item, "default")},
        {"Now", current_text(item)},
        {"Example", help_text_of(item, "example")},
        {"Not carried out on this machine", help_text_of(item, "not_carried_out")},
    };
    std::vector<ctl_list_row> rows;
    for (const auto& [label, text] : lines) {
        if (!text.empty()) {
            rows.push_back({label, {text}, " "});
        }
        if (std::string_view(label) == "Value") {
            for (const control_json& field : item.value("fields", control_json::array())) {
                rows.push_back({"  " + help_text_of(field, "name"), {help_text_of(field, "form")}, " "});
            }
        }
    }
    return help_text_of(item, "path") + "\n" + help_text_of(item, "meaning") + "\n\n" + ctl_list_text(rows, width, 2);
}

/// How an item is named in a list: by its short path, if it has one.
std::string item_name(const control_json& item) {
    const std::string short_path = help_text_of(item, "short_path");
    return short_path.empty() ? help_text_of(item, "path") : short_path;
}

/// The value of an item that is configured, the number of items in a folder; otherwise a hyphen.
std::string listed_value(const control_json& child) {
    constexpr size_t shown_max = 40;
    if (const auto items = child.find("items"); items != child.end() && *items != 0) {
        return control_json_text(*items) + (*items == 1 ? " item" : " items");
    }
    if (const auto entries = child.find("entries"); entries != child.end()) {
        return control_json_text(*entries) + (*entries == 1 ? " entry" : " entries");
    }
    const auto value = child.find("value");
    return value == child.end() ? "-" : text_escape(control_json_text(*value), shown_max);
}

}  // namespace

std::string ctl_item_help_text(const control_json& items, size_t width) {
    if (items.size() == 1) {
        return item_text(items[0], width);
    }
    ctl_table table = {{{"Path", true}, {"Meaning", false}}, {}};
    for (const control_json& item : items) {
        table.rows.push_back({{item_name(item)}, {help_text_of(item, "meaning")}});
    }
    return ctl_table_text(table, width, 0) + "\n`ssh_cfg_ctl help PATH` explains one of them.\n";
}

std::string ctl_children_text(const control_json& children, size_t width) {
    ctl_table table = {{{"Name", true}, {"Value", false}, {"Meaning", false}}, {}};
    for (const control_json& child : children) {
        std::string name = child.value("name", "");
        name = name.starts_with('*') ? "NAME" + name.substr(1) : text_escape(name, ctl_shown_max);
        table.rows.push_back({{name}, {listed_value(child)}, {child.value("meaning", "")}});
    }
    return ctl_table_text(table, width, 0);
}
