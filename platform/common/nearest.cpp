#include "common/nearest.h"

#include <algorithm>
#include <cstddef>

namespace {

using distance_row = std::vector<size_t>;

/// One row of the distance table: the first characters of `from` up to `position` against every prefix of `to`.
distance_row next_row(std::string_view from, std::string_view to, size_t position, const distance_row& above,
                      const distance_row& above_that) {
    distance_row row(to.size() + 1);
    row[0] = position;
    for (size_t column = 1; column <= to.size(); column++) {
        const bool same = from[position - 1] == to[column - 1];
        row[column] = std::min({above[column] + 1, row[column - 1] + 1, above[column - 1] + (same ? 0 : 1)});
        const bool swapped =
            position > 1 && column > 1 && from[position - 1] == to[column - 2] && from[position - 2] == to[column - 1];
        if (swapped) {
            row[column] = std::min(row[column], above_that[column - 2] + 1);
        }
    }
    return row;
}

size_t distance(std::string_view from, std::string_view to) {
    distance_row above_that;
    distance_row above(to.size() + 1);
    for (size_t column = 0; column <= to.size(); column++) {
        above[column] = column;
    }
    for (size_t position = 1; position <= from.size(); position++) {
        distance_row row = next_row(from, to, position, above, above_that);
        above_that = std::move(above);
        above = std::move(row);
    }
    return above.back();
}

}  // namespace

std::string_view nearest_word(std::string_view word, const std::vector<std::string_view>& candidates) {
    constexpr size_t word_max = 40;
    std::string_view nearest;
    size_t least = std::min<size_t>(word.size(), word_max) / 2 + 1;
    for (const std::string_view candidate : candidates) {
        const size_t steps = distance(word.substr(0, word_max), candidate);
        if (steps < least) {
            least = steps;
            nearest = candidate;
        }
    }
    return nearest;
}
