/// Lists in operational trees whose entries are a platform service's records rather than configuration items.
#ifndef LINUX_DATASTORE_SERVED_LISTS_H
#define LINUX_DATASTORE_SERVED_LISTS_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/status.h"

/// One entry of a list, read when the list was requested.
struct datastore_list_entry {
    std::string name;
    std::string record;  ///< encoded; empty if the name only leads to further items
};

/// Stores the entries of the list at `path` (below the tree, ending in '/') in order. DATASTORE_NO_SUCH_LIST when there
/// is no such list. May throw std::bad_alloc.
using datastore_list_source = platform_status (*)(std::string_view path, std::vector<datastore_list_entry>& entries);

/// Makes `source` provide all lists below `tree` (a literal that ends in '/'). A second registration replaces the first.
void datastore_serve_lists(std::string_view tree, datastore_list_source source);

/// Ends that: the lists below `tree` are items of the datastore again. Harmless if nobody serves them.
void datastore_withdraw_lists(std::string_view tree);

/// Calls the source that serves `path`. Returns false if there is none.
bool datastore_served_list(std::string_view path, std::vector<datastore_list_entry>& entries, platform_status& status);

/// Returns all trees whose lists are provided by sources.
std::vector<std::string_view> datastore_served_trees();

#endif
