#include "linux/access_lists/acl_verification.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <set>

#include "common/text.h"
#include "linux/access_lists/rule_check.h"
#include "platform/mpp.h"
#include "platform/process_manager.h"

namespace {

/// The loop is blocked meanwhile. A list of 10,000 entries takes about a second.
constexpr std::chrono::seconds check_limit{20};
constexpr size_t refusals_max = 20;
constexpr size_t shown_rule = 300;
constexpr size_t shown_words = 500;

struct service_row {
    uint32_t code;
    const char* name;
};

constexpr service_row services[] = {{MPP_SERVICE_SSH, "SSH"}, {MPP_SERVICE_NETCONF, "NETCONF"}};

struct registration {
    acl_verifier verifier = {};
    void* context = nullptr;
};

registration registered;

platform_status make_service_rules(uint32_t family, const service_row& service,
                                   const std::vector<acl_list_entry>& entries, acl_service_rules& made) {
    acl_list_rules rules = {};
    made.service = service.name;
    made.entries.resize(entries.size());
    const platform_status status = registered.verifier.make_rules(family, service.code, entries.data(), entries.size(),
                                                                  made.entries.data(), &rules, registered.context);
    if (status != PLATFORM_OK) {
        return status;
    }
    const std::unique_ptr<char, decltype(&free)> owned(rules.text, free);
    made.text.assign(rules.text, rules.size);
    made.compared_port = rules.compared_port;
    return PLATFORM_OK;
}

/// The position of a line in a text; the end of the text if there is no such line.
size_t offset_of_line(std::string_view text, size_t line) {
    size_t offset = 0;
    for (size_t number = 1; number < line && offset < text.size(); number++) {
        offset = std::min(text.find('\n', offset), text.size() - 1) + 1;
    }
    return offset;
}

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \n");
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(" \n") - first + 1);
}

/// The refusals of one service's rules, at most one for each entry.
class objector {
  public:
    objector(const std::vector<acl_stored_entry>& entries, acl_objection& objection)
        : entries_(entries), objection_(objection) {}

    void object(const acl_service_rules& rules, std::string_view words) {
        const std::vector<rule_complaint> complaints = rule_complaints(words);
        for (const rule_complaint& complaint : complaints) {
            object(rules, complaint);
        }
        if (complaints.empty()) {
            add(std::string("nft rejects the rules for ") + rules.service + ": " + text_escape(words, shown_words));
        }
    }

    /// Mentions the number of refusals that are not listed.
    void end() {
        if (untold_ > 0) {
            objection_.refusals.push_back(std::to_string(untold_) + " more entries are rejected");
        }
    }

  private:
    void object(const acl_service_rules& rules, const rule_complaint& complaint) {
        const size_t offset = offset_of_line(rules.text, complaint.line);
        const auto found = std::find_if(rules.entries.begin(), rules.entries.end(), [offset](const auto& rule) {
            return rule.offset <= offset && offset - rule.offset < rule.size;
        });
        if (complaint.line == 0 || found == rules.entries.end()) {
            add(std::string("nft rejects the rules for ") + rules.service + ": " +
                text_escape(complaint.message, shown_words));
            return;
        }
        const uint32_t sequence = entries_[static_cast<size_t>(found - rules.entries.begin())].sequence;
        if (told_.insert(sequence).second) {
            const std::string_view rule = std::string_view(rules.text).substr(found->offset, found->size);
            add("sequence " + std::to_string(sequence) + ": nft rejects its rule for " + rules.service + ", \"" +
                text_escape(trimmed(rule), shown_rule) + "\": " + text_escape(complaint.message, shown_words));
        }
    }

    void add(std::string refusal) {
        if (objection_.refusals.size() < refusals_max) {
            objection_.refusals.push_back(std::move(refusal));
        } else {
            untold_++;
        }
    }

    const std::vector<acl_stored_entry>& entries_;
    acl_objection& objection_;
    std::set<uint32_t> told_;
    size_t untold_ = 0;
};

}  // namespace

platform_status acl_service_register_verifier(const acl_verifier* verifier, void* context) {
    if (verifier == nullptr || verifier->make_rules == nullptr) {
        return EINVAL;
    }
    registered = {*verifier, context};
    return PLATFORM_OK;
}

platform_status acl_make_rules(uint32_t family, const std::vector<acl_stored_entry>& entries,
                               std::vector<acl_service_rules>& rules) {
    if (registered.verifier.make_rules == nullptr) {
        return PLATFORM_OK;
    }
    std::vector<acl_list_entry> records;
    records.reserve(entries.size());
    for (const acl_stored_entry& entry : entries) {
        records.push_back({entry.record.data(), entry.record.size()});
    }
    std::vector<acl_service_rules> made(std::size(services));
    for (size_t i = 0; i < made.size(); i++) {
        const platform_status status = make_service_rules(family, services[i], records, made[i]);
        if (status != PLATFORM_OK) {
            return status;
        }
    }
    rules = std::move(made);
    return PLATFORM_OK;
}

acl_objection acl_check_list(uint32_t family, const std::vector<acl_stored_entry>& entries) {
    acl_objection objection;
    std::vector<acl_service_rules> rules;
    const platform_status status = acl_make_rules(family, entries, rules);
    if (status != PLATFORM_OK) {
        objection.failure = text_format("no rules can be made of it: %s", platform_status_text(status));
        return objection;
    }
    std::vector<std::string_view> texts;
    texts.reserve(rules.size());
    for (const acl_service_rules& each : rules) {
        texts.emplace_back(each.text);
    }
    process_manager_progress();
    const std::vector<rule_check> checks = check_rules(texts, check_limit);
    process_manager_progress();
    objector objector(entries, objection);
    for (size_t i = 0; i < checks.size(); i++) {
        if (checks[i].verdict == rule_verdict::rejected) {
            objector.object(rules[i], checks[i].words);
        } else if (checks[i].verdict == rule_verdict::unknown) {
            objection.failure = text_escape(trimmed(checks[i].words), shown_words);
        }
    }
    objector.end();
    return objection;
}
