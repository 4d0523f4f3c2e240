#include "linux/datastore/rehearsal.h"

#include "common/text.h"

std::string rehearsed_rejection_text(const rehearsed_rejection& rejection) {
    const char* program = rejection.path.ends_with("/ssh_config") ? "ssh" : "sshd";
    return text_format("%s would reject %s: %s", program, rejection.path.c_str(), rejection.words.c_str());
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
