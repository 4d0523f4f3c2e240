/// Asks the installed ssh which algorithms it supports, and caches the answer until ssh changes.
#ifndef OPENSSH_ALGORITHM_QUERY_H
#define OPENSSH_ALGORITHM_QUERY_H

#include <string>
#include <string_view>

#include "openssh/algorithms.h"

namespace openssh {

/// Gives the names from the cache file when it was made for this very ssh (its path, size and times), otherwise from
/// `ssh -Q`, and then writes the cache file. A cache that cannot be written is no failure. Returns a text for the operator when
/// ssh cannot be asked, `known` then being untouched; empty on success.
std::string query_algorithms(const std::string& ssh, const std::string& cache_file, known_algorithms& known);

/// The cache file's text. `identity` is one line that stays the same until ssh changes.
std::string format_algorithm_cache(std::string_view identity, const known_algorithms& known);

/// Parses a cache file's text. Returns false, leaving `known` unchanged, if it is damaged or of another identity.
bool parse_algorithm_cache(std::string_view text, std::string_view identity, known_algorithms& known);

}  // namespace openssh

#endif
