#include "openssh/algorithms.h"

#include <algorithm>
#include <unordered_set>

#include "openssh/text.h"

namespace openssh {

namespace {

bool is_approved(const algorithm_row& row) {
    return row.fips == algorithm_fips::approved || row.fips == algorithm_fips::offered;
}

}  // namespace

bool is_known(const known_algorithms& known, algorithm_kind kind, std::string_view name) {
    const auto& names = known.names[static_cast<size_t>(kind)];
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool is_fips_approved(algorithm_kind kind, std::string_view name) {
    const algorithm_row* row = algorithm_named(kind, name);
    return row != nullptr && is_approved(*row);
}

std::vector<std::string_view> router_default_list(const known_algorithms& known, algorithm_kind kind,
                                                  algorithm_column rank) {
    std::vector<std::string_view> list;
    for (int position = 1; position < algorithm_column_end(kind, rank); ++position) {
        const algorithm_row* row = algorithm_at(kind, rank, position);
        if (row != nullptr && is_known(known, kind, row->name)) {
            list.push_back(row->name);
        }
    }
    return list;
}

std::vector<std::string_view> fips_default_list(const known_algorithms& known, algorithm_kind kind) {
    std::vector<std::string_view> list;
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == kind && row.fips == algorithm_fips::offered && is_known(known, kind, row.name)) {
            list.push_back(row.name);
        }
    }
    return list;
}

list_cut cut_list(std::string_view list, algorithm_kind kind, const known_algorithms& known, bool fips_mode) {
    list_cut cut;
    std::unordered_set<std::string_view> seen;
    for (const std::string_view name : split(list, ", \t")) {
        if (!is_known(known, kind, name)) {
            cut.unknown.push_back(name);
        } else if (fips_mode && !is_fips_approved(kind, name)) {
            cut.not_approved.push_back(name);
        } else if (!seen.insert(name).second) {
            cut.repeated.push_back(name);
        } else {
            cut.kept.push_back(name);
        }
    }
    return cut;
}

}  // namespace openssh
