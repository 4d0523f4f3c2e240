/// Finds the items that an operator may mean by an unknown path or by words.
#ifndef LINUX_DATASTORE_SCHEMA_NEAREST_H
#define LINUX_DATASTORE_SCHEMA_NEAREST_H

#include <string_view>
#include <vector>

#include "linux/datastore/schema.h"

/// Returns the row that has the most in common with a path. Searches for the words of the path in each row's pattern,
/// description and fields, tolerates small typing errors, and gives more weight to words that few rows contain. Among
/// equally good rows, the one with the smallest edit distance to the path is returned.
const schema_row& schema_nearest(std::string_view path);

/// Returns the rows in which all words of a text are found, in byte order of their patterns, or no rows if the text
/// contains no words.
std::vector<const schema_row*> schema_search(std::string_view text);

#endif
