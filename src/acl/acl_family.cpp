#include "acl/acl_family.h"

#include "acl/rule_conversion.h"
#include "core/paths.h"
#include "platform/acl_entry.h"
#include "platform/record_codec.h"
#include "vrf/acl_types.h"

namespace {

/// Holds a decoded entry; a record may be longer than the fields that are read here.
template <typename entry_type>
union entry_area {
    entry_type entry;
    unsigned char bytes[ACL_ENTRY_AREA];
};

template <typename entry_type, const record_descriptor* (*descriptor)(),
          void (*convert)(const entry_type&, FILE*, uint32_t)>
platform_status convert_record(const void* record, size_t size, FILE* rule_file, uint32_t type) {
    entry_area<entry_type> area{.bytes = {}};
    const platform_status status = record_decode(descriptor(), record, size, &area, sizeof(area));
    if (status != PLATFORM_OK) {
        return status;
    }
    convert(area.entry, rule_file, type);
    record_release(descriptor(), &area);
    return PLATFORM_OK;
}

}  // namespace

const acl_family ipv4_acl_family = {
    .code = ACL_FAMILY_IPV4,
    .ssh_type = acl_ssh_v4,
    .netconf_type = acl_netconf_v4,
    .tree = paths::ipv4_acl_tree,
    .bind_format = "%saccess-list/",
    .ssh_name = &vrf_node::ssh_v4_acl,
    .netconf_name = &vrf_node::netconf_v4_acl,
    .head = &vrf_node::v4_aclhead,
    .convert = convert_record<acl_ipv4_entry, acl_service_ipv4_entry_descriptor, ssh_convert_ipv4_acl_rule>,
    .register_routine = "ssh_ipv4_acl_register_cb",
    .get_list_failed = "IPv4 acl get list failed",
    .registration_failed = "IPv4 acl callback registration failed",
    .without_head = " %s: VRF node v4_aclhead is NULL",
};

const acl_family ipv6_acl_family = {
    .code = ACL_FAMILY_IPV6,
    .ssh_type = acl_ssh_v6,
    .netconf_type = acl_netconf_v6,
    .tree = paths::ipv6_acl_tree,
    .bind_format = "%s",
    .ssh_name = &vrf_node::ssh_v6_acl,
    .netconf_name = &vrf_node::netconf_v6_acl,
    .head = &vrf_node::v6_aclhead,
    .convert = convert_record<acl_ipv6_entry, acl_service_ipv6_entry_descriptor, ssh_convert_ipv6_acl_rule>,
    .register_routine = "ssh_ipv6_acl_register_cb",
    .get_list_failed = "IPv6 acl get list failed",
    .registration_failed = "IPv6 acl callback registration failed",
    .without_head = " %s: VRF node v6_aclhead is NULL",
};
