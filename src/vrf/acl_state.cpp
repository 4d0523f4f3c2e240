#include "vrf/acl_state.h"

#include <cerrno>
#include <iterator>

#include "core/text.h"
#include "platform/enforcement.h"
#include "platform/mpp.h"
#include "vrf/acl_types.h"
#include "vrf/trace_points.h"
#include "vrf/vrf_namespace.h"

namespace {

struct acl_row {
    acl_type type;  ///< the row's position
    uint32_t service;
    uint32_t family;
    const char* text;
    char (vrf_node::*name)[acl_name_size];
};

constexpr acl_row rows[] = {
    {acl_ssh_v4, MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "ssh ipv4", &vrf_node::ssh_v4_acl},
    {acl_netconf_v4, MPP_SERVICE_NETCONF, MPP_FAMILY_IPV4, "netconf ipv4", &vrf_node::netconf_v4_acl},
    {acl_ssh_v6, MPP_SERVICE_SSH, MPP_FAMILY_IPV6, "ssh ipv6", &vrf_node::ssh_v6_acl},
    {acl_netconf_v6, MPP_SERVICE_NETCONF, MPP_FAMILY_IPV6, "netconf ipv6", &vrf_node::netconf_v6_acl},
};

constexpr bool rows_are_at_their_types() {
    for (uint32_t type = 0; type < std::size(rows); ++type) {
        if (rows[type].type != type) {
            return false;
        }
    }
    return true;
}

static_assert(std::size(rows) == acl_all && rows_are_at_their_types());

constexpr size_t reason_size = 160;

struct errno_keeper {
    const int error = errno;
    errno_keeper() = default;
    errno_keeper(const errno_keeper&) = delete;
    errno_keeper& operator=(const errno_keeper&) = delete;
    ~errno_keeper() { errno = error; }
};

uint32_t bit_of(uint32_t type) {
    return 1U << type;
}

void trace_failure(platform_status status, trace_error_point point, const vrf_node& node, uint32_t type) {
    if (status != PLATFORM_OK) {
        trace_error(point, {node.name, type, status});
    }
}

void unblock(vrf_node* node, uint32_t type) {
    if ((node->blocked_acls & bit_of(type)) == 0) {
        return;
    }
    node->blocked_acls &= ~bit_of(type);
    trace_failure(mpp_service_unblock(rows[type].service, rows[type].family, node->name), vrf_trace_service_unblock,
                  *node, type);
}

void report_restored(const vrf_node& node, uint32_t type) {
    char subject[acl_subject_size];
    acl_subject(node.name, type, subject);
    enforcement_restored(subject);
}

void report_missing(vrf_node* node, uint32_t type) {
    char reason[reason_size];
    format_text(reason, sizeof reason, "access list %s has not been loaded", acl_name_of(*node, type));
    acl_rules_failed(node, type, reason);
}

}  // namespace

void acl_subject(const char* vrf_name, uint32_t type, char (&subject)[acl_subject_size]) {
    format_text(subject, sizeof subject, "rules %s %s", vrf_name, rows[type].text);
}

const char* acl_name_of(const vrf_node& node, uint32_t type) {
    return node.*rows[type].name;
}

bool acl_is_missing(const vrf_node& node, uint32_t type) {
    return acl_name_of(node, type)[0] != '\0' && (node.attached_acls & bit_of(type)) == 0;
}

bool acl_is_failed(const vrf_node& node, uint32_t type) {
    return (node.failed_acls & bit_of(type)) != 0 || acl_is_missing(node, type);
}

bool any_acl_failed(const vrf_node& node) {
    for (uint32_t type = 0; type < std::size(rows); ++type) {
        if (acl_is_failed(node, type)) {
            return true;
        }
    }
    return false;
}

void acl_rules_in_force(vrf_node* node, uint32_t type) {
    const errno_keeper keeper;
    if (acl_name_of(*node, type)[0] != '\0') {
        node->attached_acls |= bit_of(type);
    } else {
        node->attached_acls &= ~bit_of(type);
    }
    node->failed_acls &= ~bit_of(type);
    unblock(node, type);
    report_restored(*node, type);
}

void acl_detached(vrf_node* node, uint32_t type) {
    if ((node->failed_acls & bit_of(type)) == 0) {
        acl_rules_in_force(node, type);
        return;
    }
    const errno_keeper keeper;
    node->attached_acls &= ~bit_of(type);
    unblock(node, type);
}

void acl_rules_failed(vrf_node* node, uint32_t type, const char* reason) {
    const errno_keeper keeper;
    node->failed_acls |= bit_of(type);
    char subject[acl_subject_size];
    acl_subject(node->name, type, subject);
    enforcement_failed(subject, reason);
}

void block_without_acl(vrf_node* node, uint32_t type) {
    const errno_keeper keeper;
    if (!acl_is_missing(*node, type)) {
        return;
    }
    node->blocked_acls |= bit_of(type);
    trace_failure(mpp_service_block(rows[type].service, rows[type].family, node->name), vrf_trace_service_block, *node,
                  type);
}

void settle_acls(vrf_node* node) {
    const errno_keeper keeper;
    if (!vrf_namespace_exists(node->name)) {
        return;
    }
    for (uint32_t type = 0; type < std::size(rows); ++type) {
        if (!acl_is_missing(*node, type)) {
            continue;
        }
        if ((node->blocked_acls & bit_of(type)) == 0) {
            block_without_acl(node, type);
        }
        if ((node->failed_acls & bit_of(type)) == 0) {
            report_missing(node, type);
        }
    }
}

void forget_acl_rules(vrf_node* node) {
    const errno_keeper keeper;
    for (uint32_t type = 0; type < std::size(rows); ++type) {
        unblock(node, type);
        if ((node->failed_acls & bit_of(type)) != 0) {
            report_restored(*node, type);
        }
    }
    node->attached_acls = 0;
    node->failed_acls = 0;
}
