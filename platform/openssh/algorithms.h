/// Names of algorithms: what the installed OpenSSH knows, what FIPS mode permits, and lists reduced to both.
#ifndef OPENSSH_ALGORITHMS_H
#define OPENSSH_ALGORITHMS_H

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "platform/algorithms.h"

namespace openssh {

using ::algorithm_kind;

constexpr size_t algorithm_kind_count = 4;

constexpr std::array<algorithm_kind, algorithm_kind_count> algorithm_kinds = {
    algorithm_kind::cipher, algorithm_kind::mac, algorithm_kind::kex, algorithm_kind::key};

/// The names of each kind that OpenSSH accepts in its configuration, indexed by kind.
struct known_algorithms {
    std::array<std::vector<std::string>, algorithm_kind_count> names;
};

bool is_known(const known_algorithms& known, algorithm_kind kind, std::string_view name);

bool is_fips_approved(algorithm_kind kind, std::string_view name);

/// The router's default list of a kind, reduced to what OpenSSH knows; may be empty. `rank` is the list's column.
std::vector<std::string_view> router_default_list(const known_algorithms& known, algorithm_kind kind,
                                                  algorithm_column rank);

/// The same in FIPS mode: the approved names of a kind that OpenSSH knows.
std::vector<std::string_view> fips_default_list(const known_algorithms& known, algorithm_kind kind);

/// A comma-separated list, split by what may be done with each name. The views point into the list; each name is in
/// exactly one group.
struct list_cut {
    std::vector<std::string_view> kept;  ///< in the order of the list
    std::vector<std::string_view> unknown;
    std::vector<std::string_view> not_approved;  ///< known, but not approved for FIPS mode
    std::vector<std::string_view> repeated;
};

/// Splits a list into these lists. Ignores empty names, as a trailing or doubled comma produces.
list_cut cut_list(std::string_view list, algorithm_kind kind, const known_algorithms& known, bool fips_mode);

}  // namespace openssh

#endif
