#include <errno.h>

#include <cstring>
#include <new>

#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/served_lists.h"
#include "linux/datastore/state.h"

/// The names directly below a path, read when the list was requested.
struct datastore_list {
    std::vector<datastore_list_entry> entries;
};

namespace {

bool is_tree_path(const char* path) {
    const size_t length = path == nullptr ? 0 : strlen(path);
    return length > 0 && path[0] == '/' && path[length - 1] == '/';
}

/// Whether `path` may lie between a binding and the names of a list.
bool is_list_path(const char* path) {
    return path != nullptr && (*path == '\0' || path[strlen(path) - 1] == '/');
}

bool tree_has_items(const std::string& path) {
    std::string found;
    datastore_stored value;
    return datastore_stored_next(path, {}, found, value) == PLATFORM_OK;
}

/// Lists items of the configuration.
platform_status list_stored(const datastore_binding& binding, const char* path,
                            std::vector<datastore_list_entry>& entries) {
    std::map<std::string, std::string> children;
    const platform_status status = datastore_proposed_children(binding.path + path, children);
    if (status != PLATFORM_OK) {
        return status;
    }
    if (children.empty()) {
        return tree_has_items(binding.path) ? DATASTORE_NO_SUCH_LIST : DATASTORE_NO_SUCH_TREE;
    }
    for (auto& [name, record] : children) {
        entries.push_back({name, std::move(record)});
    }
    return PLATFORM_OK;
}

}  // namespace

void datastore_add_child(const std::string& prefix, const std::string& path, const datastore_stored& value,
                         std::map<std::string, std::string>& children) {
    const size_t end = path.find('/', prefix.size());
    std::string& record = children[path.substr(prefix.size(), end == std::string::npos ? end : end - prefix.size())];
    if (end == std::string::npos) {
        record = value.bytes;
    }
}

platform_status datastore_stored_children(const std::string& prefix, std::map<std::string, std::string>& children) {
    std::string path;
    datastore_stored value;
    platform_status status = PLATFORM_OK;
    while ((status = datastore_stored_next(prefix, path, path, value)) == PLATFORM_OK) {
        datastore_add_child(prefix, path, value, children);
    }
    return status == DATASTORE_NO_SUCH_ITEM ? PLATFORM_OK : status;
}

platform_status datastore_bind(const char* path, datastore_binding** binding) {
    if (!is_tree_path(path) || binding == nullptr) {
        return EINVAL;
    }
    if (const platform_status status = datastore_open(); status != PLATFORM_OK) {
        return status;
    }
    try {
        *binding = new datastore_binding{path};
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    return PLATFORM_OK;
}

platform_status datastore_unbind(datastore_binding* binding) {
    if (binding == nullptr) {
        return PLATFORM_OK;
    }
    for (const auto& registration : the_datastore().registrations) {
        if (registration->owner == binding) {
            registration->owner = nullptr;
        }
    }
    if (the_datastore().handlers_running == 0) {
        datastore_drop_orphans();
    }
    delete binding;
    return PLATFORM_OK;
}

platform_status datastore_item_get(datastore_binding* binding, const char* item, void* value, size_t capacity,
                                   size_t* size) try {
    if (binding == nullptr || item == nullptr) {
        return EINVAL;
    }
    datastore_stored stored;
    if (const platform_status status = datastore_proposed_get(binding->path + item, stored); status != PLATFORM_OK) {
        return status;
    }
    if (size != nullptr) {
        *size = stored.bytes.size();
    }
    if (value == nullptr) {
        return PLATFORM_OK;
    }
    if (stored.bytes.size() > capacity) {
        return ENOSPC;
    }
    memcpy(value, stored.bytes.data(), stored.bytes.size());
    return PLATFORM_OK;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

platform_status datastore_list_get(datastore_binding* binding, const char* path, int32_t count, datastore_list** list,
                                   uint32_t* found) try {
    if (binding == nullptr || !is_list_path(path) || count < -1) {
        return EINVAL;
    }
    auto made = std::make_unique<datastore_list>();
    platform_status status = PLATFORM_OK;
    if (!datastore_served_list(binding->path + path, made->entries, status)) {
        status = list_stored(*binding, path, made->entries);
    }
    if (status != PLATFORM_OK) {
        return status;
    }
    if (count >= 0 && made->entries.size() > static_cast<size_t>(count)) {
        made->entries.resize(static_cast<size_t>(count));
    }
    *found = static_cast<uint32_t>(made->entries.size());
    *list = made.release();
    return PLATFORM_OK;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

const char* datastore_list_name(const datastore_list* list, uint32_t index) {
    return index < list->entries.size() ? list->entries[index].name.c_str() : nullptr;
}

platform_status datastore_list_fetch(const datastore_list* list, uint32_t index, const void** record, size_t* size) {
    if (index >= list->entries.size() || list->entries[index].record.empty()) {
        return DATASTORE_NO_SUCH_ITEM;
    }
    *record = list->entries[index].record.data();
    *size = list->entries[index].record.size();
    return PLATFORM_OK;
}

void datastore_list_free(datastore_list* list) {
    delete list;
}
