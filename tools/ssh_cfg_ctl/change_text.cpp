#include "ssh_cfg_ctl/change_text.h"

#include "common/text.h"
#include "ssh_cfg_ctl/history.h"
#include "ssh_cfg_ctl/print.h"
#include "ssh_cfg_ctl/table.h"

namespace {

constexpr char indentation[] = "    ";
constexpr char only_checked[] = " (checked only, nothing stored)\n";

std::string counts_text(const control_json& items) {
    std::string text;
    for (const char* outcome : {"created", "changed", "deleted", "unchanged"}) {
        size_t count = 0;
        for (const control_json& item : items) {
            count += item.value("outcome", "") == outcome ? 1 : 0;
        }
        if (count > 0) {
            text += (text.empty() ? "" : ", ") + std::to_string(count) + ' ' + outcome;
        }
    }
    return text.empty() ? "nothing to change" : text;
}

/// "file    changed   /etc/motd": a line for one thing that the rehearsal has changed.
std::string rehearsed_line(const control_json& one, const char* kind, const char* member) {
    const std::string outcome = one.value("outcome", "");
    return std::string(kind) + "  " + outcome + std::string(outcome.size() < 10 ? 10 - outcome.size() : 1, ' ') +
           text_escape(one.value(member, ""), 1024) + '\n';
}

/// The lines of a file or list that change.
std::string lines_text(const control_json& lines) {
    std::string text;
    for (const control_json& line : lines) {
        text += std::string(indentation) + text_escape(line.is_string() ? line.get<std::string>() : "", 1024) + '\n';
    }
    return text;
}

/// Files that change in the same way, such as those of all servers, are followed by their common lines.
std::string files_text(const control_json& files) {
    std::string text;
    for (size_t i = 0; i < files.size(); i++) {
        const control_json lines = files[i].value("lines", control_json::array());
        const bool continues = i + 1 < files.size() && files[i + 1].value("lines", control_json::array()) == lines;
        text += rehearsed_line(files[i], "file  ", "path") + (continues ? "" : lines_text(lines));
    }
    return text;
}

std::string servers_text(const control_json& servers) {
    std::string text;
    for (const control_json& server : servers) {
        text += rehearsed_line(server, "server", "vrf");
    }
    return text;
}

/// What the change would do to the machine.
std::string rehearsal_text(const control_json& answer) {
    const control_json rehearsal = answer.value("rehearsal", control_json::object());
    std::string text = files_text(rehearsal.value("files", control_json::array())) +
                       servers_text(rehearsal.value("servers", control_json::array()));
    std::string vrfs;
    for (const control_json& name : rehearsal.value("vrfs", control_json::array())) {
        vrfs += (vrfs.empty() ? "" : ", ") + text_escape(name.is_string() ? name.get<std::string>() : "", 64);
    }
    return vrfs.empty() ? text : text + "VRFs concerned: " + vrfs + '\n';
}

/// One value of an item, after a sign.
std::string value_text(char sign, const control_json& item, const char* member) {
    const auto value = item.find(member);
    return value == item.end()
               ? std::string()
               : std::string(indentation) + sign + ' ' + text_escape(control_json_text(*value), ctl_shown_max) + '\n';
}

/// "created  /cfg/...": one line for an item of a commit, and for a check the old and the new value.
std::string outcome_text(const control_json& item) {
    const std::string outcome = item.value("outcome", "");
    return outcome + std::string(outcome.size() < 9 ? 9 - outcome.size() : 1, ' ') +
           text_escape(item.value("path", ""), 1024) + '\n' + value_text('-', item, "previous") +
           value_text('+', item, "value");
}

}  // namespace

std::string ctl_load_text(const control_json& answer) {
    const control_json items = answer.value("items", control_json::array());
    const bool check = answer.value("check", false);
    std::string text;
    for (const control_json& item : items) {
        text += check && item.value("outcome", "") != "unchanged" ? outcome_text(item) : "";
    }
    text += rehearsal_text(answer);
    text += counts_text(items);
    return text + (check ? only_checked : "\n") + ctl_confirmation_text(answer);
}

std::string ctl_change_text(const control_json& answer) {
    if (answer.value("check", false)) {
        return ctl_load_text(answer);
    }
    std::string text;
    if (answer.contains("path")) {
        for (const control_json& item : answer.value("items", control_json::array())) {
            text += outcome_text(item);
        }
    }
    return text;
}

std::string ctl_list_check_text(const control_json& answer) {
    const control_json list = answer.value("list", control_json::object());
    std::string text = "list    " + list.value("outcome", "") + "  " + list.value("family", "") + ' ' +
                       text_escape(list.value("name", ""), ctl_shown_max) + '\n' +
                       lines_text(list.value("lines", control_json::array()));
    for (const control_json& user : answer.value("rules", control_json::array())) {
        text += "rules   replaced  " + text_escape(user.value("vrf", ""), ctl_shown_max) + ' ' +
                user.value("service", "") + '\n';
    }
    const control_json entries = answer.value("entries", control_json());
    return text + control_json_text(entries) + (entries == 1 ? " entry" : " entries") + only_checked;
}
