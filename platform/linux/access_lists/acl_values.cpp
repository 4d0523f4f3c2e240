#include "linux/access_lists/acl_values.h"

#include <cerrno>
#include <vector>

#include "linux/access_lists/acl_service_internal.h"
#include "linux/access_lists/acl_verification.h"
#include "linux/datastore/service_values.h"
#include "linux/enforcement/enforcement_internal.h"

namespace {

/// Refuses a list that could be stored but not loaded.
datastore_objection check_list(uint32_t family, const std::string& name, const std::string& bytes) {
    std::vector<acl_stored_entry> entries;
    if (!acl_name_is_valid(name)) {
        return {EINVAL, {acl_name_form}};
    }
    if (const platform_status status = acl_list_decode(bytes, entries); status != PLATFORM_OK) {
        return {status, {"the stored list is damaged"}};
    }
    // An empty list makes no rules.
    acl_objection objection = entries.empty() ? acl_objection() : acl_check_list(family, entries);
    if (!objection.refusals.empty()) {
        return {EINVAL, std::move(objection.refusals)};
    }
    if (!objection.failure.empty()) {
        return {ENOTSUP, {"cannot be checked, nothing has been changed: " + objection.failure}, true};
    }
    return {};
}

template <uint32_t family>
datastore_objection check_list_of(const std::string& name, const std::string& bytes) {
    return check_list(family, name, bytes);
}

/// Does not load an identical list again unless something is not in force.
template <uint32_t family>
void apply_list(const std::string& name, const std::string* bytes, bool is_changed) {
    if (is_changed || (bytes != nullptr && enforcement_any_failed())) {
        acl_service_notify(family, name, bytes != nullptr && !bytes->empty());
    }
}

struct family_kind {
    uint32_t code;
    datastore_service_kind kind;
};

// Lists are set before the items that name them, and deleted after the items that named them.
constexpr family_kind family_kinds[] = {
    {ACL_FAMILY_IPV4,
     {"/access-lists/ipv4/", acl_key_prefix(ACL_FAMILY_IPV4), true, nullptr, check_list_of<ACL_FAMILY_IPV4>,
      apply_list<ACL_FAMILY_IPV4>}},
    {ACL_FAMILY_IPV6,
     {"/access-lists/ipv6/", acl_key_prefix(ACL_FAMILY_IPV6), true, nullptr, check_list_of<ACL_FAMILY_IPV6>,
      apply_list<ACL_FAMILY_IPV6>}},
};

}  // namespace

void acl_values_start() {
    for (const family_kind& row : family_kinds) {
        datastore_offer_values(row.kind);
    }
}

void acl_values_stop() {
    for (const family_kind& row : family_kinds) {
        datastore_withdraw_values(row.kind.tree);
    }
}

std::string acl_list_path(uint32_t family, std::string_view name) {
    return std::string(family_kinds[family == ACL_FAMILY_IPV6 ? 1 : 0].kind.tree) + std::string(name);
}

bool acl_family_of_path(std::string_view path, uint32_t& family) {
    for (const family_kind& row : family_kinds) {
        if (path.starts_with(row.kind.tree)) {
            family = row.code;
            return true;
        }
    }
    return false;
}
