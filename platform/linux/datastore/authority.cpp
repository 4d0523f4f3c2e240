#include "linux/datastore/authority.h"

#include "common/machine_user.h"
#include "common/text.h"

namespace {

constexpr size_t shown_name = 80;

}  // namespace

std::string datastore_key_reserved(const std::string& user) {
    const std::string shown = text_escape(user, shown_name);
    switch (machine_user_find(user)) {
        case machine_user::superuser:
            return text_format("permission denied: user %s has user ID 0, and only root may change such a key",
                               shown.c_str());
        case machine_user::undetermined:
            return text_format(
                "permission denied: whether user %s has user ID 0 cannot be determined, and only root may "
                "change such a key",
                shown.c_str());
        case machine_user::unknown:
        case machine_user::ordinary:
            break;
    }
    return {};
}

std::string datastore_item_reserved(std::string_view path) {
    for (const std::string_view tree : {datastore_user_items, datastore_imported_keys}) {
        if (path.starts_with(tree)) {
            path.remove_prefix(tree.size());
            return datastore_key_reserved(std::string(path.substr(0, path.find('/'))));
        }
    }
    return {};
}
