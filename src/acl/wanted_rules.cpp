#include "acl/wanted_rules.h"

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "acl/acl_family.h"
#include "acl/list_verifier.h"
#include "acl/subscription.h"
#include "platform/mpp.h"
#include "vrf/acl_types.h"

namespace {

/// The entries of a list, owned by it.
struct list_entries {
    datastore_binding* binding = nullptr;
    datastore_list* list = nullptr;
    std::vector<acl_list_entry> entries;

    list_entries() = default;
    list_entries(const list_entries&) = delete;
    list_entries& operator=(const list_entries&) = delete;
    ~list_entries() {
        datastore_list_free(list);
        datastore_unbind(binding);
    }
};

platform_status read_list(const acl_family& family, const char* acl_name, list_entries& read) {
    const auto connect = &family == &ipv6_acl_family ? connect_to_ipv6_datastore_acl : connect_to_ipv4_datastore_acl;
    uint32_t count = 0;
    const uint32_t result = connect(acl_name, &read.list, &count, &read.binding);
    if (result == DATASTORE_NO_SUCH_TREE) {
        return DATASTORE_NO_SUCH_LIST;
    }
    if (result != PLATFORM_OK) {
        return result == acl_bind_failed ? EIO : result;
    }
    read.entries.reserve(count);
    for (uint32_t index = 0; index < count; ++index) {
        acl_list_entry entry = {nullptr, 0};
        const platform_status fetched = datastore_list_fetch(read.list, index, &entry.record, &entry.size);
        if (fetched != PLATFORM_OK) {
            return fetched;
        }
        read.entries.push_back(entry);
    }
    return PLATFORM_OK;
}

}  // namespace

platform_status make_wanted_rules(uint32_t type, const char* acl_name, std::string* commands) {
    const acl_family& family = type >= acl_ssh_v6 ? ipv6_acl_family : ipv4_acl_family;
    list_entries read;
    platform_status status = read_list(family, acl_name, read);
    if (status != PLATFORM_OK) {
        return status;
    }
    const uint32_t service = type == family.ssh_type ? MPP_SERVICE_SSH : MPP_SERVICE_NETCONF;
    std::vector<acl_entry_rule> entry_rules(read.entries.size());
    acl_list_rules rules = {};
    status = make_list_rules(family.code, service, read.entries.data(), read.entries.size(), entry_rules.data(), &rules,
                             nullptr);
    if (status == PLATFORM_OK) {
        commands->assign(rules.text, rules.size);
        std::free(rules.text);
    }
    return status;
}
