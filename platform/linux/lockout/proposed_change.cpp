#include "linux/lockout/proposed_change.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>
#include <variant>

#include "linux/access_lists/acl_service_internal.h"
#include "linux/access_lists/acl_values.h"
#include "linux/access_lists/acl_verification.h"
#include "linux/datastore/authority.h"
#include "linux/datastore/schema.h"
#include "linux/lockout/lockout.h"
#include "linux/vrf/vrf_table_internal.h"
#include "user_keys/key_record.h"

namespace {

constexpr char protocol_item[] = "/cfg/gl/crypto/ssh/server/sshd/v2";
constexpr char server_file_prefix[] = "/var/opt/norvo/norvossh/sshd_config_";

/// A service and the item that configures it in a VRF. The order is that of acl_make_rules and of login_conditions.
struct lockout_service {
    const char* items;  ///< the path of a VRF's item, without the VRF's name
    uint16_t port;
};

constexpr lockout_service lockout_services[] = {
    {"/cfg/gl/crypto/ssh/server/sshd/vrf/", 22},
    {"/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/", 830},
};

/// Returns the value of an item in some configuration, or nothing.
using value_source = std::function<std::optional<datastore_stored>(const std::string& path)>;

uint32_t family_of(const login_session& session) {
    return session.connection.is_ipv6 ? ACL_FAMILY_IPV6 : ACL_FAMILY_IPV4;
}

/// Returns the name of the list that a VRF's item binds for the session's address family, or an empty string.
std::string list_of_item(const std::string& path, const std::optional<datastore_stored>& stored, bool is_ipv6) {
    const size_t field = is_ipv6 ? 2 : 1;
    const schema_row* row = schema_find(path, nullptr);
    datastore_value value;
    if (!stored || row == nullptr || schema_load(*row, *stored, value) != PLATFORM_OK) {
        return {};
    }
    const auto* fields = std::get_if<datastore_fields>(&value);
    const bool present = fields != nullptr && field < fields->size() && (*fields)[field].has_value();
    const std::string* name = present ? std::get_if<std::string>(&*(*fields)[field]) : nullptr;
    return name != nullptr ? *name : std::string();
}

/// Returns the keys of the session's user in some configuration.
std::vector<authorized_key> keys_of(const login_session& session, const value_source& value) {
    const std::optional<datastore_stored> item = value(key_record_item(session.user));
    const std::optional<datastore_stored> imported = value(std::string(datastore_imported_keys) + session.user);
    rsa_public_key configured;
    key_record record;
    if (item && key_text_read(item->bytes.c_str(), configured) == PLATFORM_OK) {
        return {{{}, public_key_of_rsa(configured), {}}};
    }
    if (!imported || key_record_decode(imported->bytes, record) != PLATFORM_OK) {
        return {};
    }
    return {record.keys.begin(), record.keys.end()};
}

/// Returns the lines of the keys that matter for a login like the session's.
std::vector<std::string> key_lines(const login_session& session, const value_source& value) {
    std::vector<std::string> lines;
    std::vector<authorized_key> keys = keys_of(session, value);
    for (authorized_key& key : keys) {
        if (session.key_fingerprint.empty() || session.key_fingerprint == public_key_fingerprint(key.key)) {
            key.comment.clear();
            lines.push_back(authorized_key_line(key));
        }
    }
    return lines;
}

/// Determines the conditions of a login, except for the rules of the lists.
login_conditions conditions_of(const login_session& session, const value_source& value) {
    login_conditions conditions;
    for (size_t i = 0; i < std::size(lockout_services); i++) {
        const std::string path = lockout_services[i].items + session.vrf_name;
        const std::optional<datastore_stored> item = value(path);
        conditions.lists[i].name = list_of_item(path, item, session.connection.is_ipv6);
        conditions.has_server |= item && lockout_services[i].port == session.connection.destination_port;
    }
    conditions.has_server |= session.vrf_name == vrf_default_name &&
                             session.connection.destination_port == lockout_services[0].port &&
                             value(protocol_item).has_value();
    conditions.keys = key_lines(session, value);
    return conditions;
}

/// Makes the rules of a list for a service. A list that does not exist has no entries.
std::string rules_of(uint32_t family, size_t service, const std::vector<acl_stored_entry>& entries) {
    std::vector<acl_service_rules> rules;
    if (entries.empty() || acl_make_rules(family, entries, rules) != PLATFORM_OK || service >= rules.size()) {
        return {};
    }
    return std::move(rules[service].text);
}

/// Makes the rules of a list in some configuration for a service.
std::string rules_of_list(uint32_t family, size_t service, const std::string& name, const value_source& value) {
    const std::optional<datastore_stored> list = name.empty() ? std::nullopt : value(acl_list_path(family, name));
    std::vector<acl_stored_entry> entries;
    return list && acl_list_decode(list->bytes, entries) == PLATFORM_OK ? rules_of(family, service, entries)
                                                                        : std::string();
}

std::vector<std::string> lines_of_server(const login_session& session, const rehearsal_report* rehearsal) {
    for (const rehearsed_file& file : rehearsal != nullptr ? rehearsal->files : std::vector<rehearsed_file>()) {
        if (file.path == server_file_prefix + session.vrf_name) {
            return file.lines;
        }
    }
    return {};
}

/// Adds the rules of lists that a commit exchanges or changes; the others stay as they are, and need not be known.
void add_changed_rules(const login_session& session, const value_source& proposed, login_change& change) {
    const uint32_t family = family_of(session);
    for (size_t i = 0; i < std::size(lockout_services); i++) {
        login_list& before = change.before.lists[i];
        login_list& after = change.after.lists[i];
        const std::string path = acl_list_path(family, after.name);
        if (before.name != after.name || datastore_present_value(path) != proposed(path)) {
            before.rules = rules_of_list(family, i, before.name, datastore_present_value);
            after.rules = rules_of_list(family, i, after.name, proposed);
        }
    }
}

}  // namespace

std::vector<std::string> lockout_of_commit(const login_session& session,
                                           const std::vector<datastore_item_outcome>& items,
                                           const rehearsal_report* rehearsal) {
    const value_source proposed = [&items](const std::string& path) {
        const auto item =
            std::ranges::find_if(items, [&path](const datastore_item_outcome& one) { return one.path == path; });
        return item == items.end() ? datastore_present_value(path) : item->value;
    };
    login_change change = {conditions_of(session, datastore_present_value), conditions_of(session, proposed),
                           lines_of_server(session, rehearsal)};
    add_changed_rules(session, proposed, change);
    return lockout_reasons(session, change);
}
