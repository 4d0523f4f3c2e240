#include "core/item_table.h"

#include <array>
#include <iterator>
#include <string_view>

#include "appliers/algorithm_lists.h"
#include "appliers/algorithm_verifiers.h"
#include "appliers/client_settings.h"
#include "appliers/host_key_algorithms.h"
#include "appliers/mac_disabling.h"
#include "appliers/server_settings.h"
#include "appliers/settings.h"
#include "appliers/trustpoints.h"
#include "appliers/user_keys.h"
#include "appliers/vrf_name_verifier.h"
#include "core/default_handlers.h"
#include "core/item_tree.h"
#include "core/log.h"
#include "core/trace_points.h"
#include "vrf/vrf_appliers.h"

namespace {

constexpr uint32_t number = DATASTORE_VALUE_NUMBER;
constexpr uint32_t text = DATASTORE_VALUE_TEXT;
constexpr uint32_t tuple = DATASTORE_VALUE_TUPLE;

constexpr datastore_item_handler handlers[] = {
#define ITEM(path, kind, verifier, applier) {kind, verifier, applier},
#define SETTING(path, verifier, applier, ...) {number, verifier, applier},
#include "config_files/configuration.def"
};

// Indexed by the number of the handler.
constexpr std::array<std::string_view, std::size(handlers)> paths = {
#define ITEM(path, ...) path,
#define SETTING(path, ...) path,
#include "config_files/configuration.def"
};
static_assert(paths_differ(paths), "two items have the same path");

constexpr auto tree = make_item_tree<tree_size(paths)>(paths);

constexpr std::array<datastore_item_node, tree.size()> make_nodes() {
    std::array<datastore_item_node, tree.size()> nodes{};
    for (size_t i = 0; i < tree.size(); i++) {
        const bool is_wildcard = tree[i].name.data() == any_name;
        const char* name = is_wildcard ? nullptr : tree[i].name.data();
        const uint32_t type = is_wildcard ? DATASTORE_NODE_WILDCARD : DATASTORE_NODE_NAMED;
        const int32_t child = tree[i].first_child;
        nodes[i] = {name, type, child, tree[i].next_sibling, tree[i].handler, child != no_node ? 1U : 0U};
    }
    return nodes;
}

constexpr std::array<datastore_item_node, tree.size()> nodes = make_nodes();

platform_status report(platform_status status, const char* item, const char* failure) {
    if (status != PLATFORM_OK) {
        trace_error(core_trace_dispatch, {item, status});
        log_status(ERR_ERRNO, status, failure);
    }
    return status;
}

}  // namespace

const datastore_item_table item_table = {nodes.data(), nodes.size(), handlers, std::size(handlers)};

platform_status verify_configuration(const datastore_backend_call* call, void*) {
    return report(datastore_backend_verify(call, &item_table), call->item, "backend verify failed");
}

platform_status apply_configuration(const datastore_backend_call* call, void*) {
    return report(datastore_backend_apply(call, &item_table), call->item, "backend apply failed");
}
