#include "acl/subscription.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "acl/acl_family.h"
#include "acl/load_failure.h"
#include "acl/nft_files.h"
#include "acl/trace_points.h"
#include "config_files/parameter_table.h"
#include "config_files/vrf_node.h"
#include "core/agent_state.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/text.h"
#include "platform/process_manager.h"
#include "vrf/acl_state.h"
#include "vrf/vrf_namespace.h"

namespace {

constexpr int acl_service_attempts = 5;
constexpr size_t list_path_size = 100;
constexpr size_t compared_vrf_name = 32;

/// A list whose changes the ACL service reports. Each list has one subscription, whichever VRF attached it first: that
/// VRF's handle may now belong to another list, or the VRF may be gone while others still use the list.
struct subscription {
    const acl_family* family;
    char acl_name[acl_name_size];
    acl_handle* handle;
    subscription* next;
};

subscription* subscriptions = nullptr;

/// Entries of one list as read from the datastore, released at the end of its scope.
struct acl_reading {
    datastore_binding* binding = nullptr;
    datastore_list* list = nullptr;
    uint32_t count = 0;

    acl_reading() = default;
    acl_reading(const acl_reading&) = delete;
    acl_reading& operator=(const acl_reading&) = delete;
    ~acl_reading() {
        datastore_list_free(list);
        datastore_unbind(binding);
    }
};

/// An open rule file, closed at the end of its scope.
struct rule_file {
    FILE* stream = nullptr;

    rule_file() = default;
    rule_file(const rule_file&) = delete;
    rule_file& operator=(const rule_file&) = delete;
    ~rule_file() {
        if (stream != nullptr) {
            fclose(stream);
        }
    }
};

/// The callback that the ACL service calls when a list of the family has changed.
acl_change_callback change_callback(const acl_family& family) {
    return &family == &ipv4_acl_family ? ssh_ipv4_acl_reg_upd : ssh_ipv6_acl_reg_upd;
}

bool list_does_not_exist(uint32_t result) {
    return result == DATASTORE_NO_SUCH_LIST || result == DATASTORE_NO_SUCH_TREE;
}

uint32_t read_entries(const acl_family& family, const char* acl_name, datastore_list** list, uint32_t* count,
                      datastore_binding** binding) {
    char tree[list_path_size];
    format_text(tree, sizeof(tree), family.bind_format, family.tree);
    const platform_status bound = bind_datastore(tree, binding);
    if (bound != PLATFORM_OK) {
        log_bind_failure(bound, tree);
        note_load_failure("access list %s could not be read: %s", acl_name, platform_status_text(bound));
        trace_error(acl_trace_bind, {tree, bound});
        return acl_bind_failed;
    }
    char name[acl_name_size];
    copy_text(name, sizeof(name), acl_name);
    *strchrnul(name, '/') = '\0';
    char path[list_path_size];
    format_text(path, sizeof(path), "%s/%s", name, "sequencetable/");
    const platform_status listed = datastore_list_get(*binding, path, -1, list, count);
    if (listed != PLATFORM_OK && !list_does_not_exist(listed)) {
        log_location(ERR_DATASTORE_DATALIST, listed, path);
        note_load_failure("access list %s could not be read: %s", acl_name, platform_status_text(listed));
        trace_error(acl_trace_list, {path, listed});
    }
    return listed;
}

uint32_t read_entries(const acl_family& family, const char* acl_name, acl_reading& reading) {
    return read_entries(family, acl_name, &reading.list, &reading.count, &reading.binding);
}

/// Converts one entry. Returns 0, or -1 after logging the failure. `*fetched` receives the result of the fetch.
int write_entry(const acl_family& family, const acl_reading& reading, uint32_t index, uint32_t type, FILE* stream,
                platform_status* fetched) {
    const void* record = nullptr;
    size_t size = 0;
    *fetched = datastore_list_fetch(reading.list, index, &record, &size);
    const platform_status converted =
        record != nullptr ? family.convert(record, size, stream, type) : static_cast<platform_status>(RECORD_MALFORMED);
    if (converted == PLATFORM_OK) {
        return 0;
    }
    if (*fetched == PLATFORM_OK) {
        log_location(ERR_BAG_DECODE, converted, "IPV4 ACL CFG");
    }
    note_load_failure("entry %u of the access list could not be read: %s", index + 1,
                      platform_status_text(*fetched != PLATFORM_OK ? *fetched : converted));
    return -1;
}

/// Opens the file of a type and writes its header. Reports failures.
int open_rule_file(const vrf_node& node, uint32_t type, rule_file& file) {
    if (norvossh_acl_init_table(node.name, &file.stream, type) == 0) {
        return 0;
    }
    debug_print("Failed to create NFT file");
    log_errno("Failed to create NFT file");
    return -1;
}

/// Writes the end of the file and loads it.
int finish_rule_file(const vrf_node& node, uint32_t type, const rule_file& file) {
    ssh_nft_fp_close(type, file.stream);
    if (ferror(file.stream) != 0) {
        return report_unwritten_file();
    }
    return ssh_apply_acl(node.name, type);
}

bool same_text(const char* one, const char* other, size_t size) {
    return strncmp(one, other, size) == 0;
}

/// Whether `other` uses the list that `node` names for a type.
bool uses_same_list(const acl_family& family, const vrf_node& node, const vrf_node& other, const char* acl_name) {
    if (!same_text(node.name, other.name, compared_vrf_name)) {
        return same_text(acl_name, other.*family.ssh_name, acl_name_size) ||
               same_text(acl_name, other.*family.netconf_name, acl_name_size);
    }
    debug_print("vrfnode->refCount = %d", node.reference_count);
    return node.reference_count != 0 && same_text(node.*family.ssh_name, node.*family.netconf_name, acl_name_size);
}

int in_use_elsewhere(const acl_family& family, const vrf_node* node, uint32_t type) {
    const char* acl_name = acl_name_of(family, *node, type);
    for (const vrf_node* other = server_config.nodes; other != nullptr; other = other->next) {
        debug_print("vrfnode->vrf_name = %s, curr_vrfnode->vrf_name = %s", node->name, other->name);
        if (acl_name != nullptr && uses_same_list(family, *node, *other, acl_name)) {
            return 0;
        }
    }
    return 1;
}

/// The link that refers to a list's subscription, or the end of the chain.
subscription** find_subscription(const acl_family& family, const char* acl_name) {
    subscription** place = &subscriptions;
    while (*place != nullptr &&
           ((*place)->family != &family || !same_text((*place)->acl_name, acl_name, acl_name_size))) {
        place = &(*place)->next;
    }
    return place;
}

bool is_subscribed(const acl_family& family, const char* acl_name) {
    return *find_subscription(family, acl_name) != nullptr;
}

void end_subscription(subscription** place) {
    subscription* ended = *place;
    if (ended == nullptr) {
        return;
    }
    const acl_family& family = *ended->family;
    for (vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (node->*family.head == ended->handle) {
            node->*family.head = nullptr;
        }
    }
    acl_service_unregister_callback(ended->handle, change_callback(family));
    acl_service_release(ended->handle);
    *place = ended->next;
    delete ended;
}

bool used_by_any(const acl_family& family, const char* acl_name) {
    for (const vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (same_text(acl_name, node->*family.ssh_name, acl_name_size) ||
            same_text(acl_name, node->*family.netconf_name, acl_name_size)) {
            return true;
        }
    }
    return false;
}

/// Ends the subscriptions to lists that no VRF names any longer.
void end_unused_subscriptions(const acl_family& family) {
    for (subscription** place = &subscriptions; *place != nullptr;) {
        if ((*place)->family == &family && !used_by_any(family, (*place)->acl_name)) {
            end_subscription(place);
        } else {
            place = &(*place)->next;
        }
    }
}

/// Adds the new subscription of a list and ends its previous one. Returns false when out of memory.
bool keep_subscription(const acl_family& family, const char* acl_name, acl_handle* handle) {
    auto* added = new (std::nothrow) subscription{&family, {}, handle, nullptr};
    if (added == nullptr) {
        return false;
    }
    copy_text(added->acl_name, sizeof(added->acl_name), acl_name);
    subscription** former = find_subscription(family, acl_name);
    if (*former != nullptr) {
        end_subscription(former);
    }
    added->next = subscriptions;
    subscriptions = added;
    return true;
}

/// Calls the ACL service up to five times, without a pause. Returns the last result.
template <typename operation>
platform_status attempt(const char* routine, const char* what, operation ask) {
    platform_status status = PLATFORM_OK;
    for (int attempts = 0; attempts < acl_service_attempts; ++attempts) {
        status = ask();
        if (status == PLATFORM_OK) {
            break;
        }
        debug_print("%s: %s, Error:=%s(0x%x), Retrying...", routine, what, platform_status_text(status), status);
    }
    return status;
}

int register_callback(const acl_family& family, acl_handle** head, vrf_node* node, uint32_t type,
                      event_manager* manager) {
    const char* routine = family.register_routine;
    // Names are stored when items are set, but lists are attached when namespaces appear: if others name the list, nobody
    // has necessarily subscribed to it yet.
    if (in_use_elsewhere(family, node, type) == 0 && is_subscribed(family, acl_name_of(family, *node, type))) {
        debug_print("%s: Aleady registered for ACL callback", routine);
        end_unused_subscriptions(family);
        return 0;
    }
    char name[acl_name_size];
    copy_text(name, sizeof(name), acl_name_of(family, *node, type));
    acl_handle* handle = nullptr;
    platform_status status = attempt(routine, family.get_list_failed,
                                     [&] { return acl_service_get_list(family.code, name, manager, &handle); });
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, family.get_list_failed);
        trace_error(acl_trace_get_list, {node->name, name, status});
        return -1;
    }
    status = attempt(routine, family.registration_failed,
                     [&] { return acl_service_register_callback(handle, change_callback(family)); });
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, family.registration_failed);
        trace_error(acl_trace_register, {node->name, name, status});
        acl_service_release(handle);
        return -1;
    }
    if (!keep_subscription(family, name, handle)) {
        log_location(ERR_MALLOC, ENOMEM, family.registration_failed);
        acl_service_unregister_callback(handle, change_callback(family));
        acl_service_release(handle);
        return -1;
    }
    *head = handle;
    end_unused_subscriptions(family);
    debug_print("%s: Registered for ACL callback, ACL name: %s", routine, name);
    trace_event(acl_trace_attached, {node->name, name, type});
    return 0;
}

/// Reads, converts and loads the list on attaching. Returns 0, also if the list does not exist yet.
int load_on_attach(const acl_family& family, const vrf_node& node, uint32_t type, rule_file& file) {
    acl_reading reading;
    const uint32_t result = read_entries(family, acl_name_of(family, node, type), reading);
    if (list_does_not_exist(result)) {
        return 0;
    }
    if (result != PLATFORM_OK) {
        debug_print("ACL entries of %s cannot be read, Error:=%s(0x%x)", acl_name_of(family, node, type),
                    result == acl_bind_failed ? "bind failed" : platform_status_text(result), result);
        return -1;
    }
    for (uint32_t index = 0; index < reading.count; ++index) {
        platform_status fetched = PLATFORM_OK;
        if (write_entry(family, reading, index, type, file.stream, &fetched) != 0) {
            if (fetched != PLATFORM_OK) {
                log_location(ERR_DATASTORE_GET, fetched, "IPV4 ACL CFG");
            }
            return -1;
        }
    }
    return finish_rule_file(node, type, file);
}

int configure(const acl_family& family, const char* routine, event_manager* manager, vrf_node* node, uint32_t type) {
    debug_print("Entered %s", routine);
    clear_load_failure();
    rule_file file;
    int result = open_rule_file(*node, type, file);
    if (acl_name_of(family, *node, type) == nullptr) {
        debug_print("Invalid ACL type");
        return -1;
    }
    if (result == 0) {
        result = load_on_attach(family, *node, type, file);
    }
    if (result == 0) {
        acl_rules_in_force(node, type);
    } else {
        acl_rules_failed(node, type, load_failure());
    }
    // A list that could not be loaded is followed nevertheless, because its next change may correct it.
    if (register_callback(family, &(node->*family.head), node, type, manager) != 0) {
        debug_print("%s: Failed to register for ACL callback", routine);
        if (result == 0) {
            acl_rules_failed(node, type, "changes of the access list are not followed");
        }
        return -1;
    }
    return result;
}

/// Writes the entries of a changed list. `examine_fetch` is set only for the SSH service: there a failed fetch ends the
/// pass, while for NETCONF only a decoding failure does. Returns 0 or 1.
int write_changed_entries(const acl_family& family, const acl_reading& reading, uint32_t type, FILE* stream,
                          bool examine_fetch) {
    for (uint32_t index = 0; index < reading.count; ++index) {
        platform_status fetched = PLATFORM_OK;
        const int written = write_entry(family, reading, index, type, stream, &fetched);
        if (examine_fetch && fetched != PLATFORM_OK) {
            debug_print("ACL entry %u cannot be fetched, Error:=%s(0x%x)", index, platform_status_text(fetched),
                        fetched);
            return 1;
        }
        if (written != 0) {
            if (fetched != PLATFORM_OK) {
                log_location(ERR_BAG_DECODE, RECORD_MALFORMED, "IPV4 ACL CFG");
            }
            return 1;
        }
    }
    return 0;
}

/// Rebuilds one VRF's file after a change. If the list cannot be read, the file contains only the closing drop rule, which
/// closes the port to every new connection. Sets `*complete` if all entries are loaded. Returns 0 or 1.
int rebuild(const acl_family& family, const vrf_node& node, uint32_t type, bool examine_fetch, bool* complete) {
    rule_file file;
    if (open_rule_file(node, type, file) != 0) {
        return 1;
    }
    acl_reading reading;
    const bool read = read_entries(family, acl_name_of(family, node, type), reading) == PLATFORM_OK;
    if (read && write_changed_entries(family, reading, type, file.stream, examine_fetch) != 0) {
        return 1;
    }
    const int result = finish_rule_file(node, type, file) == 0 ? 0 : 1;
    *complete = read && result == 0;
    return result;
}

int flush_after_removal(const vrf_node& node, uint32_t type) {
    if (ssh_flush_nft_table(node.name, type) == 0) {
        return 0;
    }
    log_errno("Failed to flush nftable");
    return 1;
}

/// Puts a change in force in one VRF. Returns 0 or 1.
int follow_change_in(const acl_family& family, vrf_node* node, uint32_t type, bool present, bool examine_fetch) {
    clear_load_failure();
    bool complete = false;
    int result = 0;
    if (present) {
        result = rebuild(family, *node, type, examine_fetch, &complete);
    } else {
        result = flush_after_removal(*node, type);
        complete = result == 0;
    }
    if (complete) {
        acl_rules_in_force(node, type);
    } else {
        acl_rules_failed(node, type, load_failure());
    }
    return result;
}

/// Whether a change of the list concerns the VRF now.
bool is_concerned(const acl_family& family, const vrf_node& node, uint32_t type, const acl_change_notice& notice) {
    return same_text(acl_name_of(family, node, type), notice.acl_name, acl_name_size) &&
           vrf_namespace_exists(node.name);
}

uint32_t count_concerned(const acl_family& family, uint32_t type, const acl_change_notice& notice) {
    uint32_t count = 0;
    for (const vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        count += is_concerned(family, *node, type, notice) ? 1 : 0;
    }
    return count;
}

void tell_step(const acl_change_notice& notice, uint32_t done, uint32_t total) {
    char work[acl_name_size + sizeof "loading access list "];
    format_text(work, sizeof work, "loading access list %s", notice.acl_name);
    process_manager_step(work, done, total);
}

/// One pass over all VRFs, for one service. A VRF without namespace gets the list when the namespace returns. A failure in
/// one VRF does not stop the others. Returns 0, or 1 if any failed.
int follow_change(const acl_family& family, uint32_t type, const acl_change_notice& notice, bool examine_fetch) {
    const uint32_t total = count_concerned(family, type, notice);
    uint32_t done = 0;
    int result = 0;
    for (vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (!is_concerned(family, *node, type, notice)) {
            continue;
        }
        tell_step(notice, done++, total);
        if (follow_change_in(family, node, type, notice.present != 0, examine_fetch) != 0) {
            result = 1;
        }
    }
    return result;
}

int list_changed(const acl_family& family, const acl_change_notice* notice) {
    if (notice == nullptr) {
        log_error("ACL head is null");
        trace_error(acl_trace_notice);
        return 1;
    }
    trace_event(acl_trace_changed, {notice->acl_name, notice->present});
    const int ssh_result = follow_change(family, family.ssh_type, *notice, true);
    const int netconf_result = follow_change(family, family.netconf_type, *notice, false);
    return ssh_result != 0 || netconf_result != 0 ? 1 : 0;
}

void remove_config(const acl_family& family, const char* routine, vrf_node* node, uint32_t type) {
    debug_print("%s: VRF name = %s", routine, node->name);
    // The rules of a VRF without namespace no longer exist.
    clear_load_failure();
    if (vrf_namespace_exists(node->name) && ssh_flush_nft_table(node->name, type) != 0) {
        debug_print("Failed to flush nftable");
        acl_rules_failed(node, type, load_failure());
        return;
    }
    if (in_use_elsewhere(family, node, type) == 0) {
        debug_print("%s: Aleady registered for ACL callback", routine);
        return;
    }
    const char* acl_name = acl_name_of(family, *node, type);
    if (node->*family.head == nullptr) {
        debug_print(family.without_head, routine);
    }
    if (acl_name == nullptr || !is_subscribed(family, acl_name)) {
        return;
    }
    end_subscription(find_subscription(family, acl_name));
    debug_print(" %s: Successfully unregistered ACL callback", routine);
    trace_event(acl_trace_detached, {node->name, type});
}

}  // namespace

uint32_t connect_to_ipv4_datastore_acl(const char* acl_name, datastore_list** list, uint32_t* count,
                                       datastore_binding** binding) {
    return read_entries(ipv4_acl_family, acl_name, list, count, binding);
}

uint32_t connect_to_ipv6_datastore_acl(const char* acl_name, datastore_list** list, uint32_t* count,
                                       datastore_binding** binding) {
    return read_entries(ipv6_acl_family, acl_name, list, count, binding);
}

int ssh_ipv4_acl_register_cb(acl_handle** head, vrf_node* node, uint32_t type, event_manager* manager) {
    return register_callback(ipv4_acl_family, head, node, type, manager);
}

int ssh_ipv6_acl_register_cb(acl_handle** head, vrf_node* node, uint32_t type, event_manager* manager) {
    return register_callback(ipv6_acl_family, head, node, type, manager);
}

int ssh_ipv4_acl_reg_upd(const acl_change_notice* notice) {
    return list_changed(ipv4_acl_family, notice);
}

int ssh_ipv6_acl_reg_upd(const acl_change_notice* notice) {
    return list_changed(ipv6_acl_family, notice);
}

int ssh_configure_v4acl(event_manager* manager, vrf_node* node, uint32_t type) {
    return configure(ipv4_acl_family, __func__, manager, node, type);
}

int ssh_configure_v6acl(event_manager* manager, vrf_node* node, uint32_t type) {
    return configure(ipv6_acl_family, __func__, manager, node, type);
}

void ssh_remove_v4acl_config(vrf_node* node, uint32_t type) {
    remove_config(ipv4_acl_family, __func__, node, type);
}

void ssh_remove_v6acl_config(vrf_node* node, uint32_t type) {
    remove_config(ipv6_acl_family, __func__, node, type);
}

void release_unused_subscriptions() {
    end_unused_subscriptions(ipv4_acl_family);
    end_unused_subscriptions(ipv6_acl_family);
}

int acl_in_use_elsewhere(const vrf_node* node, uint32_t type) {
    return in_use_elsewhere(ipv4_acl_family, node, type);
}

int acl6_in_use_elsewhere(const vrf_node* node, uint32_t type) {
    return in_use_elsewhere(ipv6_acl_family, node, type);
}
