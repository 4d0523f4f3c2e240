#include "ssh_cfg_ctl/mistakes.h"

#include <algorithm>
#include <map>

#include "common/text.h"

namespace {

constexpr size_t shown_member = 200;

/// The mistakes by the order of their members.
using mistake_map = std::map<size_t, std::string>;

size_t index_of(const ctl_source& source, std::string_view path) {
    const auto found = std::ranges::find(source.members, path, &ctl_member::name);
    return static_cast<size_t>(found - source.members.begin());
}

void add_duplicates(const ctl_source& source, mistake_map& mistakes) {
    for (size_t i = 0; i < source.members.size(); i++) {
        const ctl_member& member = source.members[i];
        if (member.is_duplicate) {
            mistakes[i] = text_escape(member.name, shown_member) + ": duplicate name, already used in " +
                          ctl_place_text(source.members[index_of(source, member.name)]);
        }
    }
}

std::string text_of_mistakes(const ctl_source& source, const mistake_map& mistakes) {
    std::string text;
    for (const auto& [index, mistake] : mistakes) {
        text +=
            (text.empty() ? "" : "\n") + source.name + ": " + ctl_place_text(source.members[index]) + ": " + mistake;
    }
    return text;
}

/// Adds what the agent has found. Returns what cannot be given a place.
std::string add_findings(const ctl_source& source, const control_json& answer, mistake_map& mistakes) {
    const auto add = [&](const std::string& path, const std::string& text) {
        const size_t index = index_of(source, path);
        if (index < source.members.size()) {
            mistakes[index] = text;
        }
        return index < source.members.size();
    };
    const std::string message = answer.value("message", "");
    const auto refusals = answer.find("refusals");
    if (refusals == answer.end()) {
        return add(answer.value("path", ""), message) ? "" : message;
    }
    for (const control_json& refusal : *refusals) {
        add(refusal.value("path", ""), refusal.value("text", ""));
    }
    const uint64_t more = answer.value("more_refusals", uint64_t{0});
    return more == 0 ? "" : std::to_string(more) + " more items were refused";
}

}  // namespace

bool ctl_has_duplicates(const ctl_source& source) {
    return std::ranges::any_of(source.members, &ctl_member::is_duplicate);
}

std::string ctl_mistakes_in_text(const ctl_source& source, std::string_view text) {
    mistake_map mistakes;
    for (size_t i = 0; i < source.members.size(); i++) {
        const ctl_member& member = source.members[i];
        std::string error;
        if (!control_json_parse(text.substr(member.value, member.end - member.value), error)) {
            mistakes[i] = text_escape(member.name, shown_member) + ": " + error;
        }
    }
    add_duplicates(source, mistakes);
    return text_of_mistakes(source, mistakes);
}

void ctl_locate_mistakes(const ctl_source& source, control_json& answer) {
    const control_result result = control_result_of_name(answer.value("result", ""));
    const bool is_refused = result == control_result::refused || result == control_result::no_data;
    const bool has_duplicates = ctl_has_duplicates(source);
    if (source.members.empty() || (!is_refused && !has_duplicates) || answer.contains("lock_out")) {
        return;
    }
    mistake_map mistakes;
    const std::string rest = is_refused ? add_findings(source, answer, mistakes) : std::string();
    add_duplicates(source, mistakes);
    const std::string text = text_of_mistakes(source, mistakes);
    const std::string message = text + (text.empty() || rest.empty() ? "" : "\n") + rest;
    if (has_duplicates) {
        answer = control_answer(control_result::refused, message);
    } else {
        answer["message"] = message;
    }
}
