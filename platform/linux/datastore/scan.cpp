#include <errno.h>
#include <syslog.h>

#include <new>

#include "linux/datastore/state.h"
#include "linux/enforcement/enforcement_internal.h"
#include "linux/reporting/log_message_internal.h"
#include "platform/process_manager.h"

namespace {

void apply_as_created(const datastore_item_table* table, const char* item, const datastore_stored& stored,
                      uint32_t cookie) {
    datastore_change change = {};
    change.event = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET;
    change.value = stored.bytes.data();
    change.value_size = stored.bytes.size();
    const datastore_backend_call call = {item, &change, nullptr, nullptr};
    const platform_status status = datastore_backend_apply(&call, table);
    if (status != PLATFORM_OK) {
        platform_log(LOG_WARNING, "The stored item %s could not be applied at start-up: %s (0x%x), scan 0x%x", item,
                     platform_status_text(status), status, cookie);
    }
}

}  // namespace

platform_status datastore_backend_scan(datastore_binding* binding, const datastore_item_table* table,
                                       const char* pattern, uint32_t cookie, event_manager*) try {
    if (binding == nullptr || table == nullptr || pattern == nullptr) {
        return EINVAL;
    }
    const datastore_handler_scope scope;
    const enforcement_announced_commit announced;
    const std::string tree = binding->path;
    std::string path;
    datastore_stored stored;
    platform_status status = PLATFORM_OK;
    while ((status = datastore_stored_next(tree, path, path, stored)) == PLATFORM_OK) {
        const std::string_view item = std::string_view(path).substr(tree.size());
        if (datastore_pattern_matches(pattern, item) && schema_find(path, nullptr) != nullptr) {
            apply_as_created(table, path.c_str() + tree.size(), stored, cookie);
            process_manager_progress();
        }
    }
    return status == DATASTORE_NO_SUCH_ITEM ? PLATFORM_OK : status;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}
