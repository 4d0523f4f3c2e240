#include "acl/failed_lists.h"

#include "acl/acl_family.h"
#include "acl/load_failure.h"
#include "acl/nft_files.h"
#include "acl/subscription.h"
#include "config_files/parameter_table.h"
#include "core/agent_state.h"
#include "core/text.h"
#include "vrf/acl_state.h"
#include "vrf/acl_types.h"
#include "vrf/vrf_namespace.h"

namespace {

constexpr size_t text_size = 160;

void report(const vrf_node& node, uint32_t type, enforcement_difference_sink sink, void* sink_context) {
    char subject[acl_subject_size];
    acl_subject(node.name, type, subject);
    const char* acl_name = acl_name_of(node, type);
    char text[text_size];
    if (acl_name[0] == '\0') {
        format_text(text, sizeof text, "%s", "rules of an access list that is no longer named are still loaded");
    } else if (acl_is_missing(node, type)) {
        format_text(text, sizeof text, "access list %s is not loaded", acl_name);
    } else {
        format_text(text, sizeof text, "the last change of access list %s is not loaded", acl_name);
    }
    sink(subject, text, sink_context);
}

/// Removes the rules of a type that may no longer be needed.
bool flush(vrf_node* node, uint32_t type) {
    clear_load_failure();
    if (ssh_flush_nft_table(node->name, type) == 0) {
        return true;
    }
    acl_rules_failed(node, type, load_failure());
    return false;
}

bool list_exists(const vrf_node& node, uint32_t type) {
    datastore_list* list = nullptr;
    datastore_binding* binding = nullptr;
    uint32_t count = 0;
    const auto read = type >= acl_ssh_v6 ? connect_to_ipv6_datastore_acl : connect_to_ipv4_datastore_acl;
    const uint32_t result = read(acl_name_of(node, type), &list, &count, &binding);
    datastore_list_free(list);
    datastore_unbind(binding);
    return result != DATASTORE_NO_SUCH_LIST && result != DATASTORE_NO_SUCH_TREE;
}

/// Tries the rules of a type again. An existing list replaces the loaded rules in one step; attaching a list that does not
/// exist leaves the rules unchanged.
void reload(vrf_node* node, uint32_t type) {
    const bool named = acl_name_of(*node, type)[0] != '\0';
    if ((!named || !list_exists(*node, type)) && !flush(node, type)) {
        return;
    }
    if (!named) {
        acl_rules_in_force(node, type);
        return;
    }
    const auto attach = type >= acl_ssh_v6 ? ssh_configure_v6acl : ssh_configure_v4acl;
    attach(agent_handles.event_manager, node, type);
}

}  // namespace

void acl_reload_failed_of(vrf_node* node) {
    if (!any_acl_failed(*node) || !vrf_namespace_exists(node->name)) {
        return;
    }
    clear_load_failure();
    const bool has_tables = create_nft_table(node->name) == 0;
    for (uint32_t type = 0; type < acl_all; ++type) {
        if (!acl_is_failed(*node, type)) {
            continue;
        }
        if (has_tables) {
            reload(node, type);
        } else {
            acl_rules_failed(node, type, load_failure());
        }
    }
}

void acl_load_again(vrf_node* node, uint32_t type) {
    clear_load_failure();
    if (remove_nft_table(node->name, type) == 0 && create_nft_table(node->name) == 0) {
        reload(node, type);
    } else {
        acl_rules_failed(node, type, load_failure());
    }
}

int acl_reload_failed(uint32_t repair, enforcement_difference_sink sink, void* sink_context) {
    int remaining = 0;
    for (vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (!vrf_namespace_exists(node->name)) {
            continue;
        }
        for (uint32_t type = 0; type < acl_all; ++type) {
            if (acl_is_failed(*node, type)) {
                report(*node, type, sink, sink_context);
            }
        }
        if (repair != 0) {
            acl_reload_failed_of(node);
        }
        for (uint32_t type = 0; type < acl_all; ++type) {
            remaining += acl_is_failed(*node, type) ? 1 : 0;
        }
    }
    return remaining;
}
