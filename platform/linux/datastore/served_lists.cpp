#include "linux/datastore/served_lists.h"

#include <algorithm>

namespace {

struct served_tree {
    std::string_view tree;
    datastore_list_source source;
};

std::vector<served_tree>& trees() {
    static std::vector<served_tree> served;
    return served;
}

}  // namespace

void datastore_serve_lists(std::string_view tree, datastore_list_source source) {
    datastore_withdraw_lists(tree);
    trees().push_back({tree, source});
}

void datastore_withdraw_lists(std::string_view tree) {
    std::erase_if(trees(), [tree](const served_tree& row) { return row.tree == tree; });
}

bool datastore_served_list(std::string_view path, std::vector<datastore_list_entry>& entries, platform_status& status) {
    for (const served_tree& row : trees()) {
        if (path.starts_with(row.tree)) {
            status = row.source(path.substr(row.tree.size()), entries);
            return true;
        }
    }
    return false;
}

std::vector<std::string_view> datastore_served_trees() {
    std::vector<std::string_view> served;
    served.reserve(trees().size());
    for (const served_tree& row : trees()) {
        served.push_back(row.tree);
    }
    return served;
}
