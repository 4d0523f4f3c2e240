#include <errno.h>

#include <new>

#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/served_lists.h"
#include "linux/datastore/service_values.h"
#include "linux/datastore/state.h"

platform_status datastore_get_value(std::string_view path, datastore_value& value) try {
    const schema_row* row = schema_find(path, nullptr);
    datastore_stored stored;
    if (row == nullptr) {
        return DATASTORE_NO_SUCH_ITEM;
    }
    const platform_status status = datastore_stored_get(path, stored);
    return status == PLATFORM_OK ? schema_load(*row, stored, value) : status;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

platform_status datastore_list_children(std::string_view path, std::vector<std::string>& names) try {
    std::string prefix(path);
    if (prefix.empty() || prefix.back() != '/') {
        prefix += '/';
    }
    std::vector<datastore_list_entry> served;
    platform_status status = PLATFORM_OK;
    if (datastore_served_list(prefix, served, status)) {
        names.clear();
        for (datastore_list_entry& entry : served) {
            names.push_back(std::move(entry.name));
        }
        return status == DATASTORE_NO_SUCH_LIST ? platform_status{PLATFORM_OK} : status;
    }
    std::map<std::string, std::string> children;
    status = datastore_stored_children(prefix, children);
    if (status != PLATFORM_OK) {
        return status;
    }
    names.clear();
    for (const auto& [name, record] : children) {
        names.push_back(name);
    }
    return PLATFORM_OK;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

platform_status datastore_visit(
    std::string_view prefix,
    const std::function<bool(const std::string& path, const datastore_value& value)>& visit) try {
    const std::string start = prefix.empty() ? "/" : std::string(prefix);
    std::string path;
    datastore_stored stored;
    datastore_value value;
    platform_status status = PLATFORM_OK;
    while ((status = datastore_stored_next(start, path, path, stored)) == PLATFORM_OK) {
        const schema_row* row = schema_find(path, nullptr);
        if (row != nullptr && schema_load(*row, stored, value) == PLATFORM_OK && !visit(path, value)) {
            return PLATFORM_OK;
        }
    }
    return status == DATASTORE_NO_SUCH_ITEM ? PLATFORM_OK : status;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

std::optional<datastore_stored> datastore_present_value(std::string_view path) {
    const datastore_service_kind* kind = datastore_service_kind_of(path);
    datastore_stored stored;
    const platform_status status =
        kind == nullptr ? datastore_stored_get(path, stored) : datastore_service_get(*kind, path, stored);
    return status == PLATFORM_OK ? std::optional(std::move(stored)) : std::nullopt;
}
