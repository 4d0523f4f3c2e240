#include "platform/datastore.h"

#include <errno.h>

#include <algorithm>
#include <cstring>

#include "datastore_internal.h"

namespace fake_platform {
namespace internal {

datastore_state datastore;

namespace {

/// Removes the first component.
std::string_view take_component(std::string_view& path) {
    const size_t end = std::min(path.find('/'), path.size());
    const std::string_view component = path.substr(0, end);
    path.remove_prefix(std::min(end + 1, path.size()));
    return component;
}

}  // namespace

bool item_matches(std::string_view pattern, std::string_view item) {
    const bool below = !pattern.empty() && pattern.back() == '/';
    while (!pattern.empty()) {
        if (item.empty()) {
            return false;
        }
        const std::string_view wanted = take_component(pattern);
        if (take_component(item) != wanted && wanted != "*") {
            return false;
        }
        if (pattern.empty()) {
            return below != item.empty();
        }
    }
    return true;
}

std::optional<std::string> item_below(const datastore_binding* binding, std::string_view path) {
    const auto is_it = [binding](const auto& owned) { return owned.get() == binding; };
    if (std::none_of(datastore.bindings.begin(), datastore.bindings.end(), is_it)) {
        return std::nullopt;
    }
    const std::string& tree = binding->path;
    if (path.size() <= tree.size() || path.compare(0, tree.size(), tree) != 0) {
        return std::nullopt;
    }
    return std::string(path.substr(tree.size()));
}

void reset_datastore() {
    datastore = datastore_state();
}

}  // namespace internal

using internal::datastore;

void end_process() {
    internal::datastore.verifications.clear();
    internal::datastore.notifications.clear();
    internal::datastore.providers.clear();
    internal::datastore.open_lists.clear();
    internal::datastore.bindings.clear();
    internal::reset_enforcement();
}

value number_value(uint32_t number) {
    return {DATASTORE_VALUE_NUMBER, std::string(reinterpret_cast<const char*>(&number), sizeof number)};
}

value text_value(std::string_view text) {
    return {DATASTORE_VALUE_TEXT, std::string(text) + '\0'};
}

value tuple_value(const char* format, const std::vector<field>& fields) {
    std::vector<tuple_field> packed_fields;
    uint32_t mask = 0;
    for (const field& entry : fields) {
        const size_t conversion = 2 * packed_fields.size() + 1;
        if (entry.text && conversion < strlen(format) && format[conversion] == 'd') {
            throw std::invalid_argument("a text where the tuple has a number");
        }
        mask |= entry.present ? 1U << packed_fields.size() : 0;
        packed_fields.push_back({entry.number, entry.text ? entry.text->c_str() : nullptr});
    }
    packed_fields.resize(std::max(packed_fields.size(), strlen(format) / 2));
    std::string packed(size_t{4} + packed_fields.size() * (TUPLE_TEXT_MAX + 4), '\0');
    size_t size = 0;
    const platform_status status = tuple_encode(packed.data(), packed.size(), format, packed_fields.data(),
                                                static_cast<uint32_t>(packed_fields.size()), mask, &size);
    if (status != PLATFORM_OK) {
        throw std::invalid_argument(platform_status_text(status));
    }
    packed.resize(size);
    return raw_tuple_value(std::move(packed));
}

value raw_tuple_value(std::string bytes) {
    return {DATASTORE_VALUE_TUPLE, std::move(bytes)};
}

void store(const change& change) {
    if (change.new_value) {
        datastore.items[change.path] = *change.new_value;
    } else {
        datastore.items.erase(change.path);
    }
}

std::optional<value> stored(std::string_view path) {
    const auto item = datastore.items.find(path);
    return item != datastore.items.end() ? std::optional(item->second) : std::nullopt;
}

void set_list(std::string path, std::vector<std::pair<std::string, std::string>> entries) {
    datastore.lists[std::move(path)] = std::move(entries);
}

void remove_list(std::string_view path) {
    if (const auto list = datastore.lists.find(path); list != datastore.lists.end()) {
        datastore.lists.erase(list);
    }
}

size_t bindings() {
    return datastore.bindings.size();
}

size_t bindings(std::string_view path) {
    return static_cast<size_t>(std::count_if(datastore.bindings.begin(), datastore.bindings.end(),
                                             [path](const auto& binding) { return binding->path == path; }));
}

size_t verifications() {
    return datastore.verifications.size();
}

size_t notifications() {
    return datastore.notifications.size();
}

}  // namespace fake_platform

using namespace fake_platform;
using internal::datastore;
using internal::enter;

namespace {

std::string path_of(const datastore_binding* binding, const char* item) {
    return binding->path + item;
}

/// An item as it would be after the commit that is being verified.
std::optional<fake_platform::value> proposed_or_stored(const std::string& path) {
    if (datastore.proposed != nullptr) {
        if (const auto wished = datastore.proposed->find(path); wished != datastore.proposed->end()) {
            return wished->second;
        }
    }
    return stored(path);
}

/// All items, as the commit whose verifiers are asked would leave them.
std::map<std::string, fake_platform::value, std::less<>> proposed_items() {
    auto items = datastore.items;
    if (datastore.proposed != nullptr) {
        for (const auto& [path, wished] : *datastore.proposed) {
            items.erase(path);
            if (wished) {
                items.emplace(path, *wished);
            }
        }
    }
    return items;
}

/// The names directly below `path`, without duplicates, in byte order. An item's record is its value.
datastore_list children(const std::string& path) {
    std::map<std::string, std::string> names;
    const auto items = proposed_items();
    for (auto item = items.upper_bound(path); item != items.end(); ++item) {
        if (item->first.compare(0, path.size(), path) != 0) {
            break;
        }
        const size_t end = item->first.find('/', path.size());
        std::string& record = names[item->first.substr(path.size(), end - path.size())];
        if (end == std::string::npos) {
            record = item->second.bytes;
        }
    }
    datastore_list list;
    list.entries.assign(names.begin(), names.end());
    return list;
}

datastore_list entries_at(const std::string& path) {
    const auto scripted = datastore.lists.find(path);
    return scripted != datastore.lists.end() ? datastore_list{scripted->second} : children(path);
}

template <typename row>
bool has_below(const std::map<std::string, row, std::less<>>& rows, const std::string& tree) {
    const auto first = rows.lower_bound(tree);
    return first != rows.end() && first->first.compare(0, tree.size(), tree) == 0;
}

bool is_event_mask(uint32_t mask) {
    constexpr uint32_t all = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET | DATASTORE_EVENT_DELETE;
    return mask != 0 && (mask & ~all) == 0;
}

bool ends_in_slash(const char* path) {
    const size_t length = path != nullptr ? strlen(path) : 0;
    return length > 0 && path[length - 1] == '/';
}

}  // namespace

platform_status datastore_bind(const char* path, datastore_binding** binding) {
    if (const platform_status status = enter("datastore_bind", {path}); status != PLATFORM_OK) {
        return status;
    }
    if (!ends_in_slash(path) || path[0] != '/') {
        return EINVAL;
    }
    datastore.bindings.push_back(std::make_unique<datastore_binding>(datastore_binding{path}));
    *binding = datastore.bindings.back().get();
    return PLATFORM_OK;
}

platform_status datastore_unbind(datastore_binding* binding) {
    const platform_status status = enter("datastore_unbind", {binding != nullptr ? binding->path.c_str() : nullptr});
    if (status != PLATFORM_OK || binding == nullptr) {
        return status;
    }
    const auto registered_on = [binding](const auto& registration) { return registration.binding == binding; };
    std::erase_if(datastore.verifications, registered_on);
    std::erase_if(datastore.notifications, registered_on);
    const size_t freed = std::erase_if(datastore.bindings, [=](const auto& owned) { return owned.get() == binding; });
    return freed == 1 ? PLATFORM_OK : static_cast<platform_status>(EINVAL);
}

platform_status datastore_item_get(datastore_binding* binding, const char* item, void* value, size_t capacity,
                                   size_t* size) {
    const std::string path = path_of(binding, item);
    if (const platform_status status = enter("datastore_item_get", {path}); status != PLATFORM_OK) {
        return status;
    }
    const std::optional<fake_platform::value> found = proposed_or_stored(path);
    if (!found) {
        return DATASTORE_NO_SUCH_ITEM;
    }
    const std::string& bytes = found->bytes;
    if (size != nullptr) {
        *size = bytes.size();
    }
    if (value == nullptr) {
        return PLATFORM_OK;
    }
    if (bytes.size() > capacity) {
        return ENOSPC;
    }
    memcpy(value, bytes.data(), bytes.size());
    return PLATFORM_OK;
}

platform_status datastore_list_get(datastore_binding* binding, const char* path, int32_t count, datastore_list** list,
                                   uint32_t* found) {
    const std::string whole_path = path_of(binding, path);
    if (const platform_status status = enter("datastore_list_get", {whole_path, count}); status != PLATFORM_OK) {
        return status;
    }
    if (!ends_in_slash(whole_path.c_str()) || count < -1) {
        return EINVAL;
    }
    datastore_list entries = entries_at(whole_path);
    if (entries.entries.empty()) {
        const bool tree = has_below(datastore.items, binding->path) || has_below(datastore.lists, binding->path);
        return tree ? DATASTORE_NO_SUCH_LIST : DATASTORE_NO_SUCH_TREE;
    }
    if (count >= 0 && entries.entries.size() > static_cast<size_t>(count)) {
        entries.entries.resize(static_cast<size_t>(count));
    }
    datastore.open_lists.push_back(std::make_unique<datastore_list>(std::move(entries)));
    *list = datastore.open_lists.back().get();
    *found = static_cast<uint32_t>((*list)->entries.size());
    return PLATFORM_OK;
}

const char* datastore_list_name(const datastore_list* list, uint32_t index) {
    return index < list->entries.size() ? list->entries[index].first.c_str() : nullptr;
}

platform_status datastore_list_fetch(const datastore_list* list, uint32_t index, const void** record, size_t* size) {
    if (const platform_status status = enter("datastore_list_fetch", {index}); status != PLATFORM_OK) {
        return status;
    }
    if (index >= list->entries.size() || list->entries[index].second.empty()) {
        return DATASTORE_NO_SUCH_ITEM;
    }
    *record = list->entries[index].second.data();
    *size = list->entries[index].second.size();
    return PLATFORM_OK;
}

void datastore_list_free(datastore_list* list) {
    enter("datastore_list_free", {list != nullptr ? "list" : "NULL"});
    std::erase_if(datastore.open_lists, [list](const auto& owned) { return owned.get() == list; });
}

platform_status datastore_register_verification(datastore_binding* binding, const char* pattern, uint32_t event_mask,
                                                datastore_verify_callback verify, datastore_apply_callback apply,
                                                event_manager*, void* context) {
    const platform_status status = enter("datastore_register_verification", {path_of(binding, pattern), event_mask});
    if (status != PLATFORM_OK) {
        return status;
    }
    if (!is_event_mask(event_mask) || (verify == nullptr && apply == nullptr)) {
        return EINVAL;
    }
    datastore.verifications.push_back({binding, pattern, event_mask, verify, apply, context});
    return PLATFORM_OK;
}

platform_status datastore_register_notification(datastore_binding* binding, const char* item, uint32_t event_mask,
                                                datastore_notification_callback callback, event_manager*,
                                                void* context) {
    const platform_status status = enter("datastore_register_notification", {path_of(binding, item), event_mask});
    if (status != PLATFORM_OK) {
        return status;
    }
    if (!is_event_mask(event_mask) || callback == nullptr) {
        return EINVAL;
    }
    datastore.notifications.push_back({binding, item, event_mask, callback, context});
    return PLATFORM_OK;
}
