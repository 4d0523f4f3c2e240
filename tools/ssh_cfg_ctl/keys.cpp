#include "ssh_cfg_ctl/keys.h"

#include "common/text.h"
#include "ssh_cfg_ctl/print.h"
#include "ssh_cfg_ctl/table.h"

namespace {

constexpr size_t line_max = 16384;  ///< bytes; a line is shorter

/// A key that is not accepted has the reason below its type.
ctl_cell key_type_cell(const control_json& key) {
    ctl_cell cell = {ctl_member_text(key, "type")};
    if (key.is_object() && key.value("not_accepted", control_json()).is_string()) {
        cell.push_back("(" + ctl_member_text(key, "not_accepted") + ")");
    }
    return cell;
}

/// Most keys have no options, and some no comment.
std::string text_or_dash(const control_json& key, const char* name) {
    std::string text = ctl_member_text(key, name);
    return text.empty() ? "-" : text;
}

std::string table_of_keys(const control_json& keys, size_t width) {
    ctl_table table = {{{"User", true},
                        {"Type", true},
                        {"Bits", true},
                        {"Origin", true},
                        {"Since", true},
                        {"Fingerprint", true},
                        {"Options", false},
                        {"Comment", false}},
                       {}};
    table.rows.reserve(keys.size());
    for (const control_json& key : keys) {
        table.rows.push_back({{ctl_member_text(key, "user")},
                              key_type_cell(key),
                              {ctl_member_text(key, "bits")},
                              {ctl_member_text(key, "origin")},
                              {ctl_member_text(key, "since")},
                              {ctl_member_text(key, "fingerprint")},
                              {text_or_dash(key, "options")},
                              {text_or_dash(key, "comment")}});
    }
    return ctl_table_text(table, width, 0);
}

}  // namespace

std::string ctl_keys_text(const control_json& answer, size_t width) {
    const control_json data = answer.value("data", control_json());
    if (!data.is_array()) {
        return {};
    }
    if (data.empty()) {
        return "no keys\n";
    }
    if (!data[0].is_string()) {
        return table_of_keys(data, width);
    }
    std::string lines;
    for (const control_json& line : data) {
        lines += text_escape(line.is_string() ? line.get<std::string>() : "", line_max) + '\n';
    }
    return lines;
}
