#include "ssh_cfg_ctl/status.h"

#include "common/text.h"
#include "ssh_cfg_ctl/print.h"
#include "ssh_cfg_ctl/progress.h"
#include "ssh_cfg_ctl/table.h"

namespace {

/// A text from the agent, made safe for a terminal.
std::string text_of(const control_json& object, const char* name) {
    const auto member = object.find(name);
    return member != object.end() && member->is_string()
               ? text_escape(member->get_ref<const std::string&>(), ctl_shown_max)
               : std::string();
}

control_json list_of(const control_json& object, const char* name) {
    return object.value(name, control_json::array());
}

/// The members of a list of texts or numbers, separated by blanks.
std::string joined(const control_json& list, const char* none) {
    std::string text;
    for (const control_json& member : list) {
        text += (text.empty() ? "" : " ") + (member.is_string() ? text_escape(member.get<std::string>(), ctl_shown_max)
                                                                : control_json_text(member));
    }
    return text.empty() ? none : text;
}

/// "running", or systemd's two states, such as "failed (failed)".
std::string server_text(const control_json& vrf) {
    const control_json unit = vrf.value("unit", control_json());
    if (!unit.is_object()) {
        return "unknown";
    }
    const std::string active = text_of(unit, "active");
    const std::string sub = text_of(unit, "sub");
    return active == "active" || active == sub ? sub : active + " (" + sub + ")";
}

/// Whether the server runs with local directives.
bool has_local_directives(const control_json& file) {
    const control_json local = file.is_object() ? file.value("local", control_json()) : control_json();
    const std::string in_use = local.is_object() ? text_of(local, "in_use") : "";
    return in_use == "current" || in_use == "last_accepted";
}

std::string file_text(const control_json& vrf) {
    const control_json file = vrf.value("file", control_json());
    const std::string in_use = file.is_object() ? text_of(file, "in_use") : "-";
    return (in_use == "last_good" ? "last good" : in_use) + (has_local_directives(file) ? " + local" : "");
}

std::string lists_text(const control_json& vrf) {
    const control_json lists = list_of(vrf, "access_lists");
    size_t loaded = 0;
    for (const control_json& list : lists) {
        loaded += text_of(list, "state") == "loaded" ? 1 : 0;
    }
    if (lists.empty()) {
        return "none";
    }
    const std::string all = std::to_string(lists.size());
    return (loaded == lists.size() ? all : std::to_string(loaded) + " of " + all) + " loaded";
}

std::string blocked_text(const control_json& vrf) {
    return vrf.value("blocked", false) ? "yes" : joined(list_of(vrf, "closed"), "no");
}

std::string vrfs_text(const control_json& vrfs, size_t width) {
    ctl_table table = {{{"VRF", true},
                        {"Services", true},
                        {"Namespace", true},
                        {"Server", false},
                        {"Ports", true},
                        {"File", true},
                        {"Access lists", false},
                        {"Blocked", false}},
                       {}};
    for (const control_json& vrf : vrfs) {
        table.rows.push_back({{text_of(vrf, "name")},
                              {joined(list_of(vrf, "services"), "none")},
                              {vrf.value("namespace", false) ? "present" : "missing"},
                              {server_text(vrf)},
                              {joined(list_of(vrf, "ports"), "none")},
                              {file_text(vrf)},
                              {lists_text(vrf)},
                              {blocked_text(vrf)}});
    }
    return vrfs.empty() ? "" : '\n' + ctl_table_text(table, width, 0);
}

/// One line for each object: its subject and its text.
std::string lines_text(const char* heading, const control_json& list, const char* subject, const char* text) {
    std::string lines;
    for (const control_json& each : list) {
        lines += text_of(each, subject) + ": " + text_of(each, text) + '\n';
    }
    return lines.empty() ? "" : '\n' + std::string(heading) + '\n' + lines;
}

/// What the agent is doing, if it was asked in the middle of a change.
std::string work_text(const control_json& status) {
    const auto work = status.find("in_progress");
    return work != status.end() && work->is_object() ? "\nIn progress: " + ctl_progress_text(*work) + '\n' : "";
}

/// The commit that is undone unless it is confirmed.
std::string trial_text(const control_json& status) {
    const auto trial = status.find("confirmation_awaited");
    if (trial == status.end() || !trial->is_object()) {
        return "";
    }
    const std::string user = text_of(*trial, "user");
    const std::string note = text_of(*trial, "note");
    return "\nAwaiting confirmation: commit " + std::to_string(trial->value("commit", uint64_t{0})) +
           (user.empty() ? "" : " by " + user) + (note.empty() ? "" : " (" + note + ")") + ", undone at " +
           text_of(*trial, "until") + " unless confirmed\n";
}

}  // namespace

std::string ctl_status_text(const control_json& status, size_t width) {
    control_json agent = status;
    for (const char* list :
         {"vrfs", "not_in_force", "problems", "not_carried_out", "in_progress", "confirmation_awaited"}) {
        agent.erase(list);
    }
    return ctl_record_text(agent) + trial_text(status) + work_text(status) + vrfs_text(list_of(status, "vrfs"), width) +
           lines_text("Not as configured:", list_of(status, "problems"), "subject", "text") +
           lines_text("Stored, not carried out on this machine:", list_of(status, "not_carried_out"), "path", "reason");
}
