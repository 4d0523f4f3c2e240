/// The call that explains items of the configuration and of the operational data. The request member `path` is the path of
/// an item, the path of a folder, the end of such a path, or words to be searched for in the descriptions. The answer's
/// data is an array of objects with these members: path, short_path, meaning, name (the form of the name in the path),
/// type, value (the form of the value in words), lowest and highest (for a number), fields, unit, default, current (the
/// stored value, or null if none is stored; absent if the path contains a placeholder instead of a name), example and
/// not_carried_out. Members that do not apply are absent; an item of the operational data has only path, meaning and
/// example.
#include <algorithm>
#include <vector>

#include "linux/control/calls_internal.h"
#include "linux/control/operational_items.h"
#include "linux/control/value.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/schema_children.h"
#include "linux/datastore/schema_description.h"
#include "linux/datastore/schema_nearest.h"
#include "linux/datastore/short_path.h"

namespace {

constexpr char name_placeholder[] = "NAME";

struct explained_item {
    const schema_row* row;
    std::string path;
};

void add(std::vector<explained_item>& items, const schema_row* row, const std::string& path) {
    const bool is_known =
        std::any_of(items.begin(), items.end(), [row](const explained_item& item) { return item.row == row; });
    if (row != nullptr && !is_known) {
        items.push_back({row, path});
    }
}

/// Returns the items with the path `text` and the items below it. If there are none and the path is not absolute, returns
/// the items in whose descriptions all words of `text` are found.
std::vector<explained_item> find_items(const std::string& text) {
    std::vector<explained_item> items;
    for (const std::string& path : short_path_meanings(text, path_target::item)) {
        add(items, schema_find(path, nullptr), path);
    }
    for (const std::string& folder : short_path_meanings(text, path_target::folder)) {
        for (const schema_row* row : schema_rows_below(folder)) {
            add(items, row, schema_path_with_name(*row, name_placeholder));
        }
    }
    if (items.empty() && !text.starts_with('/')) {
        for (const schema_row* row : schema_search(text)) {
            add(items, row, schema_path_with_name(*row, name_placeholder));
        }
    }
    return items;
}

const char* type_name(schema_kind kind) {
    constexpr const char* names[] = {"number", "flag", "presence", "text", "tuple"};
    return names[static_cast<size_t>(kind)];
}

void add_text(control_json& object, const char* name, const std::string& text) {
    if (!text.empty()) {
        object[name] = text;
    }
}

void add_range(control_json& object, const schema_form& form) {
    if (form.kind == schema_kind::number) {
        object["lowest"] = form.lowest;
        object["highest"] = form.highest;
    }
}

void add_fields(control_json& object, const schema_description& description) {
    for (const schema_field_description& field : description.fields) {
        object["fields"].push_back({{"name", field.name}, {"form", field.form}});
    }
}

void add_current(control_json& object, const explained_item& item) {
    datastore_value value;
    const bool has_name =
        item.row->wildcard.help == nullptr || item.path != schema_path_with_name(*item.row, name_placeholder);
    if (has_name) {
        const bool is_stored = datastore_get_value(item.path, value) == PLATFORM_OK;
        object["current"] = is_stored ? control_value_to_json(value) : control_json();
    }
}

std::string example_of(const schema_description& description, const std::string& path) {
    const std::string& value = description.example;
    const bool is_plain = value.find_first_of("\"[{ ") == std::string::npos;
    return "ssh_cfg_ctl set " + path + (is_plain ? " " + value : " '" + value + '\'');
}

control_json explain(const explained_item& item) {
    const schema_description description = schema_describe(*item.row);
    const std::string short_path = short_path_of(item.path);
    control_json object = {{"path", item.path}, {"short_path", short_path}, {"meaning", description.meaning}};
    add_text(object, "name", description.name);
    object["type"] = type_name(item.row->form.kind);
    object["value"] = description.value;
    add_range(object, item.row->form);
    add_fields(object, description);
    add_text(object, "unit", description.unit);
    object["default"] = description.default_value;
    add_current(object, item);
    object["example"] = example_of(description, short_path);
    add_text(object, "not_carried_out", description.not_carried_out);
    return object;
}

bool is_operational_text(const operational_item& item, const std::string& text) {
    return item.path == text || (text.starts_with("/oper/") && text.ends_with('/') && item.path.starts_with(text));
}

void add_operational(control_json& found, const std::string& text) {
    const std::vector<std::string> meanings = control_operational_meanings(text);
    for (const operational_item& item : control_operational_items()) {
        const bool has_end = std::find(meanings.begin(), meanings.end(), item.path) != meanings.end();
        if (has_end || is_operational_text(item, text)) {
            found.push_back({{"path", item.path},
                             {"meaning", item.meaning},
                             {"example", "ssh_cfg_ctl show " + std::string(item.path)}});
        }
    }
}

}  // namespace

control_json control_call_help(const control_json& request, const control_peer& /*peer*/) {
    const std::string* text = control_text_member(request, "path");
    if (text == nullptr) {
        return control_wrong_member("path", "a string");
    }
    control_json found = control_json::array();
    for (const explained_item& item : find_items(*text)) {
        found.push_back(explain(item));
    }
    add_operational(found, *text);
    return found.empty() ? control_answer(control_result::no_data,
                                          schema_shown_path(*text) + ": neither a path nor a word of a description")
                         : control_data_answer(std::move(found));
}
