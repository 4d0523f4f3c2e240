/// What can be configured below a path.
#ifndef LINUX_DATASTORE_SCHEMA_CHILDREN_H
#define LINUX_DATASTORE_SCHEMA_CHILDREN_H

#include <string>
#include <string_view>
#include <vector>

/// What items' paths can have directly below `path`, which may end in '/', in byte order: the last component of an item's
/// path as such, any other one with a '/' behind it, and "*" in place of a name that the operator chooses. Empty if there
/// is nothing.
std::vector<std::string> schema_children(std::string_view path);

#endif
