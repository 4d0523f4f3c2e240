#include "linux/access_lists/list_users.h"

#include <variant>

#include "linux/datastore/datastore_internal.h"
#include "platform/acl_service.h"

namespace {

struct listed_service {
    const char* name;
    std::string_view items;  ///< the path of a VRF's item, without the VRF's name
};

constexpr listed_service listed_services[] = {
    {"ssh", "/cfg/gl/crypto/ssh/server/sshd/vrf/"},
    {"netconf", "/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/"},
};

bool binds(const datastore_value& value, uint32_t family, std::string_view name) {
    const size_t field = family == ACL_FAMILY_IPV6 ? 2 : 1;
    const auto* fields = std::get_if<datastore_fields>(&value);
    if (fields == nullptr || field >= fields->size() || !(*fields)[field].has_value()) {
        return false;
    }
    const auto* bound = std::get_if<std::string>(&*(*fields)[field]);
    return bound != nullptr && *bound == name;
}

}  // namespace

std::vector<acl_list_user> acl_list_users(uint32_t family, std::string_view name) {
    std::vector<acl_list_user> users;
    for (const listed_service& service : listed_services) {
        datastore_visit(service.items, [&](const std::string& path, const datastore_value& value) {
            if (binds(value, family, name)) {
                users.push_back({service.name, path.substr(service.items.size())});
            }
            return true;
        });
    }
    return users;
}
