#include "linux/rehearsal/report.h"

#include <optional>
#include <stdexcept>

#include "control_protocol/json_text.h"

namespace {

constexpr rehearsed_change changes[] = {rehearsed_change::created, rehearsed_change::changed,
                                        rehearsed_change::deleted};
constexpr rehearsed_action actions[] = {rehearsed_action::started, rehearsed_action::restarted,
                                        rehearsed_action::stopped};

/// Throws out_of_range for a name of none of them.
rehearsed_change change_of(const std::string& name) {
    for (const rehearsed_change change : changes) {
        if (name == rehearsed_change_name(change)) {
            return change;
        }
    }
    throw std::out_of_range(name);
}

rehearsed_action action_of(const std::string& name) {
    for (const rehearsed_action action : actions) {
        if (name == rehearsed_action_name(action)) {
            return action;
        }
    }
    throw std::out_of_range(name);
}

/// Throws what the JSON library and the functions above throw.
rehearsal_report report_of(const control_json& json) {
    rehearsal_report report;
    report.problem = json.at("problem");
    for (const control_json& file : json.at("files")) {
        report.files.push_back({file.at("path"), change_of(file.at("change")), file.at("lines")});
    }
    for (const control_json& name : json.at("vrfs")) {
        report.vrfs.push_back(name);
    }
    for (const control_json& server : json.at("servers")) {
        report.servers.push_back({server.at("vrf"), action_of(server.at("action"))});
    }
    for (const control_json& rejection : json.at("rejections")) {
        report.rejections.push_back(
            {rejection.at("path"), rejection.at("words"), rejection.at("was_rejected"), rejection.at("others")});
    }
    for (const control_json& failure : json.at("not_in_force")) {
        report.not_in_force.push_back({failure.at("subject"), failure.at("reason")});
    }
    return report;
}

}  // namespace

std::string rehearsal_report_write(const rehearsal_report& report) {
    control_json json = {{"problem", report.problem},
                         {"files", control_json::array()},
                         {"vrfs", report.vrfs},
                         {"servers", control_json::array()},
                         {"rejections", control_json::array()},
                         {"not_in_force", control_json::array()}};
    for (const rehearsed_file& file : report.files) {
        json["files"].push_back(
            {{"path", file.path}, {"change", rehearsed_change_name(file.change)}, {"lines", file.lines}});
    }
    for (const rehearsed_server& server : report.servers) {
        json["servers"].push_back({{"vrf", server.vrf_name}, {"action", rehearsed_action_name(server.action)}});
    }
    for (const rehearsed_rejection& rejection : report.rejections) {
        json["rejections"].push_back({{"path", rejection.path},
                                      {"words", rejection.words},
                                      {"was_rejected", rejection.was_rejected},
                                      {"others", rejection.others}});
    }
    for (const rehearsed_failure& failure : report.not_in_force) {
        json["not_in_force"].push_back({{"subject", failure.subject}, {"reason", failure.reason}});
    }
    return control_json_text(json);
}

bool rehearsal_report_read(const std::string& text, rehearsal_report& report) {
    std::string error;
    const std::optional<control_json> json = control_json_parse(text, error);
    if (!json.has_value()) {
        return false;
    }
    try {
        report = report_of(*json);
    } catch (const control_json::exception&) {
        return false;
    } catch (const std::out_of_range&) {
        return false;
    }
    return true;
}
