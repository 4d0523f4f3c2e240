#include "linux/datastore/rehearsal.h"

#include <algorithm>

#include "common/text.h"

namespace {

constexpr size_t others_shown = 8;

/// " (also NAME, NAME and 3 more)", or an empty string.
std::string others_text(const std::vector<std::string>& others) {
    std::string text;
    for (size_t i = 0; i < std::min(others.size(), others_shown); ++i) {
        text += (i == 0 ? " (also " : ", ") + others[i].substr(others[i].rfind('/') + 1);
    }
    if (others.size() > others_shown) {
        text += text_format(" and %zu more", others.size() - others_shown);
    }
    return text.empty() ? text : text + ')';
}

}  // namespace

std::string rehearsed_rejection_text(const rehearsed_rejection& rejection) {
    const char* program = rejection.path.ends_with("/ssh_config") ? "ssh" : "sshd";
    return text_format("%s would reject %s: %s%s", program, rejection.path.c_str(), rejection.words.c_str(),
                       others_text(rejection.others).c_str());
}

const char* rehearsed_change_name(rehearsed_change change) {
    switch (change) {
        case rehearsed_change::created:
            return "created";
        case rehearsed_change::changed:
            return "changed";
        case rehearsed_change::deleted:
            break;
    }
    return "deleted";
}

const char* rehearsed_action_name(rehearsed_action action) {
    switch (action) {
        case rehearsed_action::started:
            return "started";
        case rehearsed_action::restarted:
            return "restarted";
        case rehearsed_action::stopped:
            break;
    }
    return "stopped";
}
