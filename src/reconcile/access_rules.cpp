#include "reconcile/access_rules.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <set>
#include <system_error>
#include <vector>

#include "acl/failed_lists.h"
#include "acl/load_failure.h"
#include "acl/nft_files.h"
#include "acl/wanted_rules.h"
#include "config_files/parameter_table.h"
#include "config_files/vrf_node.h"
#include "core/log.h"
#include "core/paths.h"
#include "platform/acl_service.h"
#include "platform/datastore.h"
#include "platform/packet_filter.h"
#include "vrf/acl_state.h"
#include "vrf/acl_types.h"
#include "vrf/protection.h"
#include "vrf/vrf_namespace.h"

namespace {

/// A table to be compared.
struct rules_place {
    std::string vrf_name;
    vrf_node* node;  ///< null if nothing is configured in the VRF
    uint32_t type;
    std::string acl_name;         ///< empty for none
    const std::string* commands;  ///< null if there should be no rules
};

/// The commands of each list in use, by type and name. A list that does not exist has none.
using wanted_rules = std::map<std::pair<uint32_t, std::string>, std::string>;

std::string subject_of(const rules_place& place) {
    char subject[acl_subject_size];
    acl_subject(place.vrf_name.c_str(), place.type, subject);
    return subject;
}

/// Finds the commands of a place's list. Returns false, with the failure reported, if the list cannot be read.
bool find_commands(comparison& run, rules_place& place, wanted_rules& wanted) {
    const auto [row, is_new] = wanted.try_emplace({place.type, place.acl_name});
    const platform_status status =
        is_new ? make_wanted_rules(place.type, place.acl_name.c_str(), &row->second) : platform_status{PLATFORM_OK};
    if (status != PLATFORM_OK && status != DATASTORE_NO_SUCH_LIST) {
        wanted.erase(row);
        const std::string reason =
            "access list " + place.acl_name + " could not be read: " + platform_status_text(status);
        if (found(run, subject_of(place), reason)) {
            not_removed(run, subject_of(place), reason);
        }
        return false;
    }
    place.commands = row->second.empty() ? nullptr : &row->second;
    return true;
}

/// Whether the agent knows the state of the rules without looking.
bool is_known(const comparison& run, const vrf_node& node, uint32_t type) {
    const bool just_loaded = run.at_start && acl_name_of(node, type)[0] != '\0' && !acl_is_missing(node, type);
    return just_loaded || acl_is_failed(node, type);
}

void add_places_of(comparison& run, vrf_node* node, std::vector<rules_place>& places, wanted_rules& wanted) {
    for (uint32_t type = 0; type < acl_all; ++type) {
        rules_place place = {node->name, node, type, acl_name_of(*node, type), nullptr};
        if (!is_known(run, *node, type) && (place.acl_name.empty() || find_commands(run, place, wanted))) {
            places.push_back(std::move(place));
        }
    }
}

/// VRFs in which nothing is configured any more may have kept rules.
void add_unconfigured(std::vector<rules_place>& places) {
    const std::filesystem::path prefix = paths::namespace_prefix;
    std::error_code error;
    std::filesystem::directory_iterator each(prefix.parent_path(), error);
    for (; !error && each != std::filesystem::directory_iterator(); each.increment(error)) {
        const std::string name = each->path().filename();
        if (!name.starts_with(vrf_namespace_prefix)) {
            continue;
        }
        const std::string vrf_name = name.substr(std::string(vrf_namespace_prefix).size());
        for (uint32_t type = 0; find_vrf_node(vrf_name.c_str()) == nullptr && type < acl_all; ++type) {
            places.push_back({vrf_name, nullptr, type, "", nullptr});
        }
    }
}

std::vector<rules_place> collect_places(comparison& run, wanted_rules& wanted) {
    std::vector<rules_place> places;
    for (vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (vrf_namespace_exists(node->name)) {
            add_places_of(run, node, places, wanted);
        }
    }
    add_unconfigured(places);
    return places;
}

platform_status ask(const std::vector<rules_place>& places, std::vector<packet_filter_finding>& findings) {
    std::vector<packet_filter_table> tables;
    tables.reserve(places.size());
    for (const rules_place& place : places) {
        tables.push_back({place.vrf_name.c_str(),
                          static_cast<uint32_t>(place.type >= acl_ssh_v6 ? ACL_FAMILY_IPV6 : ACL_FAMILY_IPV4),
                          nft_table_name(place.type), place.commands != nullptr ? place.commands->c_str() : nullptr});
    }
    findings.resize(places.size());
    return packet_filter_compare(tables.data(), tables.size(), findings.data());
}

std::string counted_rules(uint32_t count) {
    return count == 0 ? "no rules" : std::to_string(count) + (count == 1 ? " rule" : " rules");
}

std::string difference_of(const rules_place& place, const packet_filter_finding& finding) {
    const std::string present = "the kernel has " + counted_rules(finding.present);
    if (place.commands == nullptr) {
        const std::string reason = place.node == nullptr    ? "nothing is configured in the VRF"
                                   : place.acl_name.empty() ? "no access list is named"
                                                            : "there is no access list " + place.acl_name;
        return finding.present != 0 ? present + ", but " + reason : "a chain drops packets, but " + reason;
    }
    const std::string list = "access list " + place.acl_name;
    return finding.present != finding.wanted ? present + ", but " + list + " makes " + std::to_string(finding.wanted)
                                             : present + ", as many as " + list + " makes, but not the same";
}

void repair_unconfigured(comparison& run, const rules_place& place) {
    clear_load_failure();
    if (remove_nft_table(place.vrf_name.c_str(), place.type) != 0) {
        not_removed(run, subject_of(place), load_failure());
    }
}

/// Nobody gets in while the rules are missing.
void repair(comparison& run, const rules_place& place, const std::string& difference) {
    vrf_node* node = place.node;
    const std::string message = subject_of(place) + ": " + difference + ": loading them again";
    log_text(WARNING_GENERAL, message.c_str());
    block_vrf(node->name);
    acl_load_again(node, place.type);
    settle_acls(node);
    if (node->start_failed == 0) {
        unblock_vrf(node->name);
    }
    run.remaining += acl_is_failed(*node, place.type) ? 1 : 0;
}

void judge(comparison& run, const rules_place& place, const packet_filter_finding& finding) {
    if (finding.verdict == PACKET_FILTER_AS_WANTED || !vrf_namespace_exists(place.vrf_name.c_str())) {
        return;
    }
    const bool unknown = finding.verdict == PACKET_FILTER_UNKNOWN;
    const std::string text = unknown ? "the rules in the kernel cannot be compared" : difference_of(place, finding);
    if (!found(run, subject_of(place), text)) {
        return;
    }
    if (unknown) {
        not_removed(run, subject_of(place), text);
    } else if (place.node == nullptr) {
        repair_unconfigured(run, place);
    } else {
        repair(run, place, text);
    }
}

}  // namespace

void compare_access_rules(comparison& run) {
    wanted_rules wanted;
    const std::vector<rules_place> places = collect_places(run, wanted);
    std::vector<packet_filter_finding> findings;
    const platform_status status = ask(places, findings);
    if (status == ENOTSUP) {
        return;
    }
    if (status != PLATFORM_OK) {
        const std::string reason = std::string("they cannot be compared: ") + platform_status_text(status);
        if (found(run, "rules in the kernel", reason)) {
            not_removed(run, "rules in the kernel", reason);
        }
        return;
    }
    for (size_t i = 0; i < places.size(); i++) {
        judge(run, places[i], findings[i]);
    }
}
