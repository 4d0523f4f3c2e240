/// The lines in which two versions of a file differ.
#ifndef PLATFORM_COMMON_LINE_CHANGES_H
#define PLATFORM_COMMON_LINE_CHANGES_H

#include <string>
#include <string_view>
#include <vector>

/// Returns the removed lines, each with "-" before it, and the added ones, each with "+", in the order of the file. At most
/// 500 lines are returned; a last one then says how many there are in total. Throws std::bad_alloc.
std::vector<std::string> line_changes(std::string_view before, std::string_view after);

#endif
