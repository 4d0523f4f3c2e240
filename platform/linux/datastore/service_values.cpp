#include "linux/datastore/service_values.h"

#include <algorithm>
#include <set>

#include "linux/datastore/state.h"

namespace {

/// In byte order of their trees.
std::vector<datastore_service_kind>& kinds() {
    static std::vector<datastore_service_kind> offered;
    return offered;
}

/// Calls `visit` for every value of a kind whose path begins with `tree`.
platform_status visit_kind(const datastore_service_kind& kind, std::string_view tree,
                           const std::function<void(const std::string& path, const datastore_stored& value)>& visit) {
    std::string key;
    datastore_stored value;
    platform_status status = PLATFORM_OK;
    while ((status = datastore_stored_next(kind.prefix, std::string(key), key, value)) == PLATFORM_OK) {
        const std::string path = std::string(kind.tree) + key.substr(kind.prefix.size());
        if (path.starts_with(tree) && (kind.is_included == nullptr || kind.is_included(value.bytes))) {
            visit(path, value);
        }
    }
    return status == DATASTORE_NO_SUCH_ITEM ? platform_status{PLATFORM_OK} : status;
}

}  // namespace

void datastore_offer_values(const datastore_service_kind& kind) {
    datastore_withdraw_values(kind.tree);
    const auto later = std::find_if(kinds().begin(), kinds().end(),
                                    [&kind](const datastore_service_kind& other) { return other.tree > kind.tree; });
    kinds().insert(later, kind);
}

void datastore_withdraw_values(std::string_view tree) {
    std::erase_if(kinds(), [tree](const datastore_service_kind& kind) { return kind.tree == tree; });
}

const datastore_service_kind* datastore_service_kind_of(std::string_view path) {
    for (const datastore_service_kind& kind : kinds()) {
        if (path.size() > kind.tree.size() && path.starts_with(kind.tree) &&
            path.find('/', kind.tree.size()) == std::string_view::npos) {
            return &kind;
        }
    }
    return nullptr;
}

bool datastore_is_service_tree(std::string_view tree) {
    return tree.size() > 1 && tree.ends_with('/') &&
           std::any_of(kinds().begin(), kinds().end(),
                       [tree](const datastore_service_kind& kind) { return kind.tree.starts_with(tree); });
}

std::string datastore_service_name(std::string_view path) {
    return std::string(path.substr(path.rfind('/') + 1));
}

std::string datastore_storage_key(std::string_view path) {
    const datastore_service_kind* kind = datastore_service_kind_of(path);
    return kind == nullptr ? std::string(path) : std::string(kind->prefix) + datastore_service_name(path);
}

platform_status datastore_service_get(const datastore_service_kind& kind, std::string_view path,
                                      datastore_stored& value) {
    datastore_stored found;
    const platform_status status = datastore_stored_get(std::string(kind.prefix) + datastore_service_name(path), found);
    if (status != PLATFORM_OK) {
        return status;
    }
    if (kind.is_included != nullptr && !kind.is_included(found.bytes)) {
        return DATASTORE_NO_SUCH_ITEM;
    }
    value = std::move(found);
    return PLATFORM_OK;
}

platform_status datastore_visit_service_values(
    std::string_view tree, const std::function<void(const std::string& path, const datastore_stored& value)>& visit) {
    platform_status status = PLATFORM_OK;
    for (const datastore_service_kind& kind : kinds()) {
        if (status == PLATFORM_OK && (kind.tree.starts_with(tree) || tree.starts_with(kind.tree))) {
            status = visit_kind(kind, tree, visit);
        }
    }
    return status;
}

std::vector<std::string> datastore_service_children(std::string_view folder, bool kinds_too) {
    std::set<std::string> names;
    const auto add = [&](std::string_view path) {
        if (path.size() > folder.size() && path.starts_with(folder)) {
            const size_t end = path.find('/', folder.size());
            names.emplace(path.substr(folder.size(), end == std::string_view::npos ? end : end + 1 - folder.size()));
        }
    };
    datastore_visit_service_values(folder,
                                   [&add](const std::string& path, const datastore_stored& /*value*/) { add(path); });
    for (const datastore_service_kind& kind : kinds()) {
        if (kinds_too) {
            add(kind.tree);
        }
    }
    return {names.begin(), names.end()};
}
