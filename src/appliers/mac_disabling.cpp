#include "appliers/mac_disabling.h"

#include <cerrno>
#include <cstring>
#include <iterator>
#include <string_view>

#include "appliers/algorithm_side.h"
#include "appliers/trace_points.h"
#include "config_files/config_writer.h"
#include "config_files/name_list.h"
#include "core/agent_state.h"
#include "core/debug.h"
#include "core/refusal.h"
#include "core/trace.h"
#include "platform/algorithms.h"

namespace {

struct mac_row {
    const char* item;  ///< last component of the item's path
    const char* server_path;
    const char* client_path;
};

// In the order of the settings of the MACs.
constexpr mac_row macs[] = {
    {"hmac_sha1", "cmn/disable/hmac/hmac_sha1", "disable/hmac/hmac_sha1"},
    {"hmac_sha256", "cmn/disable/hmac/hmac_sha256", "disable/hmac/hmac_sha256"},
    {"hmac_sha512", "cmn/disable/hmac/hmac_sha512", "disable/hmac/hmac_sha512"},
};
static_assert(std::size(macs) == mac_count && mac_count == algorithm_settings(algorithm_kind::mac));
static_assert(configurable_algorithm(algorithm_kind::mac, MAC_SHA1)->name == std::string_view("hmac-sha1") &&
              configurable_algorithm(algorithm_kind::mac, MAC_SHA256)->name == std::string_view("hmac-sha2-256") &&
              configurable_algorithm(algorithm_kind::mac, MAC_SHA512)->name == std::string_view("hmac-sha2-512"));

uint32_t number_of(const datastore_change& change) {
    return change.value != nullptr ? *static_cast<const uint32_t*>(change.value) : 0;
}

// --- Verifiers -------------------------------------------------------------------------------------------------------

/// The MAC that an item is about; mac_count if the path names none.
size_t mac_of(const datastore_path_components& components) {
    const char* item = components.count > 0 ? components.component[components.count - 1] : "";
    size_t index = 0;
    while (index < mac_count && std::strcmp(macs[index].item, item) != 0) {
        index++;
    }
    return index;
}

/// Whether the commit under verification leaves the MAC disabled. During verification, reads from the datastore return
/// what the commit would store.
bool is_to_be_disabled(const algorithm_side& side, size_t mac) {
    const bool is_server = &side == &server_side;
    datastore_binding* binding = is_server ? agent_handles.server_binding : agent_handles.client_binding;
    const char* path = is_server ? macs[mac].server_path : macs[mac].client_path;
    uint32_t value = 0;
    size_t size = 0;
    return binding != nullptr && datastore_item_get(binding, path, &value, sizeof value, &size) == PLATFORM_OK &&
           size == sizeof value && value != 0;
}

/// Whether no MAC would be left.
bool is_the_last(const algorithm_side& side, const datastore_change& change, size_t item) {
    uint32_t disabled = 0;
    uint32_t to_be_disabled = 0;
    for (size_t other = 0; other < mac_count; other++) {
        if (other == item) {
            continue;
        }
        disabled += side.hmac_disabled[other] != 0 ? 1 : 0;
        to_be_disabled += side.hmac_disabled[other] != 0 || is_to_be_disabled(side, other) ? 1 : 0;
    }
    constexpr uint32_t all_others = mac_count - 1;
    return disabled == all_others || (number_of(change) != 0 && to_be_disabled == all_others);
}

platform_status verify(const algorithm_side& side, const datastore_change& change, char** error_text,
                       uint32_t* accepted, const datastore_path_components& components) {
    const size_t item = mac_of(components);
    if ((change.event & DATASTORE_EVENT_CREATE_OR_SET) != 0 && item < mac_count && is_the_last(side, change, item)) {
        return refuse_change(error_text, accepted, EINVAL, appliers_trace_mac_refused, "%s",
                             "All three hmacs cannot be disabled");
    }
    *accepted = 1;
    return PLATFORM_OK;
}

// --- Appliers --------------------------------------------------------------------------------------------------------

bool is_disabled(const algorithm_side& side, const char* name) {
    const algorithm_row* row = algorithm_named(algorithm_kind::mac, name);
    return row != nullptr && row->setting >= 0 && side.hmac_disabled[row->setting] != 0;
}

void rebuild_list(const algorithm_side& side) {
    debug_print(side.text.old_macs, side.mac_list);
    side.mac_list[0] = '\0';
    char name[algorithm_list_size];
    const char* rest = side.macs->default_text;
    while (next_name(&rest, ",", name, sizeof name)) {
        if (is_disabled(side, name)) {
            continue;
        }
        if (!append_name(side.mac_list, algorithm_list_size, name)) {
            debug_print(side.text.mac_not_added, platform_status_text(ENOSPC), ENOSPC, name);
            constexpr size_t most_characters = algorithm_list_size - 2;
            side.mac_list[most_characters] = '\0';
            break;
        }
    }
    debug_print(side.text.proposed_macs, side.mac_list);
}

platform_status apply(const algorithm_side& side, mac item, const datastore_change& change) {
    debug_print(side.text.mac_events[item], static_cast<int>(change.event));
    const bool deletes = (change.event & DATASTORE_EVENT_DELETE) != 0;
    if (!deletes && (change.event & DATASTORE_EVENT_CREATE_OR_SET) == 0) {
        return PLATFORM_OK;
    }
    side.hmac_disabled[item] = !deletes && number_of(change) != 0 ? 1 : 0;
    rebuild_list(side);
    side.macs->current = side.mac_list;
    trace_event(side.trace.mac, {change.event, side.mac_list});
    side.write(deletes ? event_set_value : change.event, side.macs->keyword, side.mac_list);
    return PLATFORM_OK;
}

}  // namespace

platform_status server_mac_disable_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                            const datastore_path_components* components) {
    return verify(server_side, *change, error_text, accepted, *components);
}

platform_status client_mac_disable_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                            const datastore_path_components* components) {
    return verify(client_side, *change, error_text, accepted, *components);
}

platform_status sshd_apply_disable_hmac_sha1(const datastore_change* change, const datastore_path_components*) {
    return apply(server_side, MAC_SHA1, *change);
}

platform_status sshd_apply_disable_hmac_sha256(const datastore_change* change, const datastore_path_components*) {
    return apply(server_side, MAC_SHA256, *change);
}

platform_status sshd_apply_disable_hmac_sha512(const datastore_change* change, const datastore_path_components*) {
    return apply(server_side, MAC_SHA512, *change);
}

platform_status ssh_client_apply_disable_hmac_sha1(const datastore_change* change, const datastore_path_components*) {
    return apply(client_side, MAC_SHA1, *change);
}

platform_status ssh_client_apply_disable_hmac_sha256(const datastore_change* change, const datastore_path_components*) {
    return apply(client_side, MAC_SHA256, *change);
}

platform_status ssh_client_apply_disable_hmac_sha512(const datastore_change* change, const datastore_path_components*) {
    return apply(client_side, MAC_SHA512, *change);
}
