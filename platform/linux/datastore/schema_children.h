/// What can be configured below a path.
#ifndef LINUX_DATASTORE_SCHEMA_CHILDREN_H
#define LINUX_DATASTORE_SCHEMA_CHILDREN_H

#include <string>
#include <string_view>
#include <vector>

#include "linux/datastore/schema.h"

/// Returns, in byte order, the components that may follow `path` (which may end in '/') in the paths of items: the last one
/// of a path as it is, any other with a '/' after it, and "*" for a name that the operator chooses. Empty if there are none.
std::vector<std::string> schema_children(std::string_view path);

/// Returns the rows of the items below an absolute path, in byte order of their patterns.
std::vector<const schema_row*> schema_rows_below(std::string_view path);

#endif
