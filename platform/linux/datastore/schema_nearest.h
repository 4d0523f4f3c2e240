/// The item that the author of a wrong path may have meant.
#ifndef LINUX_DATASTORE_SCHEMA_NEAREST_H
#define LINUX_DATASTORE_SCHEMA_NEAREST_H

#include <string_view>
#include <vector>

#include "linux/datastore/schema.h"

/// The row that has most in common with a path: its words, of which rare ones count more, in the row's pattern, its
/// description and its fields, also with a small typing error; among equals, the one with the fewest letters to change.
const schema_row& schema_nearest(std::string_view path);

/// The rows in which each word of a text is found, in byte order of their patterns; none for a text without words.
std::vector<const schema_row*> schema_search(std::string_view text);

#endif
