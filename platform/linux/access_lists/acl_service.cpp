#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <set>

#include "linux/access_lists/acl_service_internal.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/served_lists.h"
#include "linux/datastore/state.h"
#include "linux/enforcement/enforcement_internal.h"
#include "linux/reporting/log_message_internal.h"

struct acl_handle {
    uint32_t family;
    std::string name;
    event_manager* manager;
    acl_change_callback callback;  ///< null until one is registered
};

namespace {

constexpr std::string_view sequence_table = "/sequencetable/";

struct acl_family_row {
    uint32_t code;
    std::string_view tree;  ///< of the operational data
    datastore_list_source source;
};

platform_status serve_list(uint32_t family, std::string_view path, std::vector<datastore_list_entry>& served) {
    if (!path.ends_with(sequence_table)) {
        return DATASTORE_NO_SUCH_LIST;
    }
    std::vector<acl_stored_entry> entries;
    const platform_status status =
        acl_list_entries(family, path.substr(0, path.size() - sequence_table.size()), entries);
    // Otherwise an emptied list would leave the port open until the agent starts again, and closed afterwards.
    if (status == PLATFORM_OK && entries.empty()) {
        return DATASTORE_NO_SUCH_LIST;
    }
    for (acl_stored_entry& entry : entries) {
        served.push_back({std::to_string(entry.sequence), std::move(entry.record)});
    }
    return status;
}

template <uint32_t family>
platform_status list_source(std::string_view path, std::vector<datastore_list_entry>& served) {
    return serve_list(family, path, served);
}

constexpr acl_family_row families[] = {
    {ACL_FAMILY_IPV4, "/oper/ipv4-acl/gl/show/access-list/", list_source<ACL_FAMILY_IPV4>},
    {ACL_FAMILY_IPV6, "/oper/ipv6-acl/gl/daemon/list/", list_source<ACL_FAMILY_IPV6>},
};

std::string key_of(uint32_t family, std::string_view name) {
    return std::string(acl_key_prefix(family)) + std::string(name);
}

struct acl_service_state {
    std::vector<std::unique_ptr<acl_handle>> handles;
};

acl_service_state& service() {
    static acl_service_state state;
    return state;
}

/// Calls each subscriber's callback once, however many handles it has on the list.
std::set<acl_change_callback> callbacks_of(uint32_t family, std::string_view name) {
    std::set<acl_change_callback> callbacks;
    for (const auto& handle : service().handles) {
        if (handle->callback != nullptr && handle->family == family && handle->name == name) {
            callbacks.insert(handle->callback);
        }
    }
    return callbacks;
}

void append_number(std::string& bytes, uint32_t number) {
    bytes.append(reinterpret_cast<const char*>(&number), sizeof(number));
}

/// Removes a number from the front.
bool take_number(std::string_view& bytes, uint32_t& number) {
    if (bytes.size() < sizeof(number)) {
        return false;
    }
    memcpy(&number, bytes.data(), sizeof(number));
    bytes.remove_prefix(sizeof(number));
    return true;
}

bool take_entry(std::string_view& bytes, acl_stored_entry& entry) {
    uint32_t size = 0;
    if (!take_number(bytes, entry.sequence) || !take_number(bytes, size) || bytes.size() < size) {
        return false;
    }
    entry.record = bytes.substr(0, size);
    bytes.remove_prefix(size);
    return true;
}

platform_status register_entry_records() {
    record_transaction* transaction = nullptr;
    platform_status status = record_registration_begin(&transaction);
    if (status != PLATFORM_OK) {
        return status;
    }
    for (const record_descriptor* descriptor :
         {acl_service_ipv4_entry_descriptor(), acl_service_ipv6_entry_descriptor()}) {
        status = record_register(transaction, descriptor);
        if (status != PLATFORM_OK) {
            record_registration_abort(transaction);
            return status;
        }
    }
    return record_registration_end(transaction);
}

}  // namespace

bool acl_name_is_valid(std::string_view name) {
    return !name.empty() && name.size() <= ACL_NAME_MAX && name.front() != '-' && name.front() != '.' &&
           std::none_of(name.begin(), name.end(),
                        [](char c) { return datastore_reserved_character(static_cast<unsigned char>(c)) != 0; });
}

platform_status acl_service_start() {
    for (const acl_family_row& row : families) {
        datastore_serve_lists(row.tree, row.source);
    }
    return register_entry_records();
}

void acl_service_stop() {
    for (const acl_family_row& row : families) {
        datastore_withdraw_lists(row.tree);
    }
}

void acl_service_notify(uint32_t family, std::string_view name, bool is_present) {
    acl_change_notice notice = {};
    name.copy(notice.acl_name, sizeof(notice.acl_name) - 1);
    notice.present = is_present ? 1 : 0;
    const enforcement_collector collector;
    bool applied = true;
    for (const acl_change_callback callback : callbacks_of(family, name)) {
        const datastore_handler_scope scope;
        applied = callback(&notice) == 0 && applied;
    }
    const std::string subject =
        std::string("access list ") + notice.acl_name + (family == ACL_FAMILY_IPV6 ? " ipv6" : " ipv4");
    if (applied) {
        enforcement_restored(subject.c_str());
        return;
    }
    platform_log(LOG_ERR, "A change of access list %s was not applied everywhere", notice.acl_name);
    if (collector.entries().empty()) {
        enforcement_failed(subject.c_str(), "not loaded everywhere; the agent's log says why");
    }
}

std::string acl_list_encode(const std::vector<acl_stored_entry>& entries) {
    std::string bytes;
    for (const acl_stored_entry& entry : entries) {
        append_number(bytes, entry.sequence);
        append_number(bytes, static_cast<uint32_t>(entry.record.size()));
        bytes += entry.record;
    }
    return bytes;
}

platform_status acl_list_decode(std::string_view bytes, std::vector<acl_stored_entry>& entries) {
    while (!bytes.empty()) {
        acl_stored_entry entry = {};
        if (!take_entry(bytes, entry)) {
            return EBADMSG;
        }
        entries.push_back(std::move(entry));
    }
    return PLATFORM_OK;
}

platform_status acl_list_names(uint32_t family, std::vector<std::string>& names) {
    const std::string prefix = key_of(family, {});
    std::string key;
    std::string bytes;
    platform_status status = PLATFORM_OK;
    while ((status = datastore_private_next(prefix, std::string(key), key, bytes)) == PLATFORM_OK) {
        names.push_back(key.substr(prefix.size()));
    }
    return status == DATASTORE_NO_SUCH_ITEM ? platform_status{PLATFORM_OK} : status;
}

platform_status acl_list_entries(uint32_t family, std::string_view name, std::vector<acl_stored_entry>& entries) {
    std::string bytes;
    const platform_status status = datastore_private_get(key_of(family, name), bytes);
    if (status != PLATFORM_OK) {
        return status == DATASTORE_NO_SUCH_ITEM ? platform_status{DATASTORE_NO_SUCH_LIST} : status;
    }
    const platform_status decoded = acl_list_decode(bytes, entries);
    if (decoded != PLATFORM_OK) {
        platform_log(LOG_ERR, "The stored access list %s is damaged", key_of(family, name).c_str());
    }
    return decoded;
}

platform_status acl_service_get_list(uint32_t family, const char* acl_name, event_manager* manager,
                                     acl_handle** handle) try {
    if (acl_name == nullptr || handle == nullptr || (family != ACL_FAMILY_IPV4 && family != ACL_FAMILY_IPV6)) {
        return EINVAL;
    }
    service().handles.push_back(std::make_unique<acl_handle>(acl_handle{family, acl_name, manager, nullptr}));
    *handle = service().handles.back().get();
    return PLATFORM_OK;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

platform_status acl_service_register_callback(acl_handle* handle, acl_change_callback callback) {
    if (handle == nullptr || callback == nullptr) {
        return EINVAL;
    }
    if (handle->callback != nullptr) {
        return EALREADY;
    }
    handle->callback = callback;
    return PLATFORM_OK;
}

platform_status acl_service_unregister_callback(acl_handle* handle, acl_change_callback callback) {
    if (handle == nullptr || handle->callback != callback) {
        return EINVAL;
    }
    handle->callback = nullptr;
    return PLATFORM_OK;
}

const char* acl_service_action_name(uint32_t grant) {
    return grant < std::size(acl_action_names) ? acl_action_names[grant] : "unknown";
}

void acl_service_release(acl_handle* handle) {
    std::erase_if(service().handles, [handle](const auto& other) { return other.get() == handle; });
}
