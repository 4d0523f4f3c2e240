#include "linux/access_lists/acl_entry_warnings.h"

#include <algorithm>

#include "linux/access_lists/acl_rule.h"
#include "linux/access_lists/acl_verification.h"

namespace {

constexpr size_t shown_names = 5;

/// "a", "a and b", "a, b and c", "a, b, c, d, e and 3 more".
std::string joined(const std::vector<std::string>& names) {
    const size_t shown = std::min(names.size(), shown_names);
    std::string text;
    for (size_t i = 0; i < shown; i++) {
        const bool last = i + 1 == names.size();
        text += (i == 0 ? "" : last ? " and " : ", ") + names[i];
    }
    return shown == names.size() ? text : text + " and " + std::to_string(names.size() - shown) + " more";
}

/// "sequence 10 VERB", or "sequences 10 and 20 VERB" with the verb's other form.
std::string subject_and_verb(const std::vector<std::string>& sequences, const char* singular, const char* plural) {
    return (sequences.size() == 1 ? "sequence " : "sequences ") + joined(sequences) + ' ' +
           (sequences.size() == 1 ? singular : plural);
}

/// "SSH", or "SSH in VRF blue".
std::string user_text(const acl_service_rules& rules, const std::vector<std::string>& vrfs) {
    return vrfs.empty() ? rules.service
                        : std::string(rules.service) + (vrfs.size() == 1 ? " in VRF " : " in VRFs ") + joined(vrfs);
}

/// A service for which a list is checked.
struct judged_service {
    const acl_service_rules& rules;
    std::string user;
};

class entry_judge {
  public:
    entry_judge(uint32_t family, const std::string& list, const std::vector<acl_stored_entry>& entries)
        : family_(family), list_(list), entries_(entries) {}

    std::vector<std::string> judge(const std::vector<judged_service>& services) {
        judge_ignored(services);
        for (const judged_service& service : services) {
            judge_closing(service);
        }
        return std::move(warnings_);
    }

  private:
    void warn(const std::string& text) { warnings_.push_back(list_ + ": " + text); }

    std::string sequence(size_t index) const { return std::to_string(entries_[index].sequence); }

    /// If no service makes a rule of an entry, it names another port or has a mask that cannot be expressed.
    void judge_ignored(const std::vector<judged_service>& services) {
        std::vector<std::string> other_port;
        std::vector<std::string> odd_mask;
        for (size_t i = 0; i < entries_.size(); i++) {
            acl_rule rule;
            const bool ignored = std::all_of(services.begin(), services.end(), [i](const judged_service& service) {
                return service.rules.entries[i].effect == ACL_ENTRY_IGNORED;
            });
            if (!ignored || acl_decode_rule(family_, entries_[i], rule) != PLATFORM_OK ||
                (!rule.any_protocol && rule.protocol != ACL_PROTOCOL_TCP)) {
                continue;
            }
            const bool has_port = rule.conditions[ACL_DESTINATION_PORT].operation != ACL_NONE;
            (has_port ? other_port : odd_mask).push_back(sequence(i));
        }
        if (!other_port.empty()) {
            warn(subject_and_verb(other_port, "never matches: its", "never match: their") +
                 " destination port is compared with " + compared_ports(services));
        }
        if (!odd_mask.empty()) {
            warn(subject_and_verb(odd_mask, "is", "are") + " ignored: nftables has no form for such a wildcard mask");
        }
    }

    /// "22 for SSH and with 830 for NETCONF", "830 for SSH and for NETCONF".
    static std::string compared_ports(const std::vector<judged_service>& services) {
        std::string text;
        uint32_t told = 0;
        for (const judged_service& service : services) {
            const uint32_t port = service.rules.compared_port;
            text += told == 0 ? std::to_string(port) : told == port ? " and" : " and with " + std::to_string(port);
            text += " for " + service.user;
            told = port;
        }
        return text;
    }

    void judge_closing(const judged_service& service) {
        std::vector<std::string> closing;
        for (size_t i = 0; i < entries_.size(); i++) {
            if (service.rules.entries[i].effect == ACL_ENTRY_CLOSES_OTHER_PORTS) {
                closing.push_back(sequence(i));
            }
        }
        if (!closing.empty()) {
            warn(subject_and_verb(closing, "closes", "close") + " every TCP port but " +
                 std::to_string(service.rules.compared_port) +
                 ", also those of other programs, where the list is used for " + service.user);
        }
    }

    uint32_t family_;
    const std::string& list_;
    const std::vector<acl_stored_entry>& entries_;
    std::vector<std::string> warnings_;
};

}  // namespace

std::vector<std::string> acl_entry_warnings(uint32_t family, const std::string& list,
                                            const std::vector<acl_stored_entry>& entries, const acl_users& users) {
    std::vector<acl_service_rules> rules;
    if (entries.empty() || acl_make_rules(family, entries, rules) != PLATFORM_OK) {
        return {};
    }
    const bool is_used = std::any_of(users.begin(), users.end(), [](const auto& vrfs) { return !vrfs.empty(); });
    std::vector<judged_service> services;
    for (size_t i = 0; i < rules.size(); i++) {
        if (!is_used || !users[i].empty()) {
            services.push_back({rules[i], user_text(rules[i], users[i])});
        }
    }
    return services.empty() ? std::vector<std::string>() : entry_judge(family, list, entries).judge(services);
}
