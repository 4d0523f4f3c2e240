#include "linux/datastore/schema_nearest.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <numeric>
#include <string>

namespace {

constexpr size_t comparison_limit = 128;  ///< how many bytes of a path are compared
constexpr size_t word_limit = 32;         ///< the maximum length of a word, in bytes; longer words are ignored
constexpr size_t words_max = 16;          ///< how many words of a path are compared, counted from its end

using word_list = std::vector<std::string>;

/// Appends the words of a text in lower case. A word consists of at least two ASCII letters and digits.
void add_words(word_list& words, std::string_view text) {
    std::string word;
    for (const char c : std::string(text) + ' ') {
        if (isalnum(static_cast<unsigned char>(c)) != 0) {
            word += static_cast<char>(tolower(static_cast<unsigned char>(c)));
            continue;
        }
        if (word.size() > 1 && word.size() <= word_limit) {
            words.push_back(word);
        }
        word.clear();
    }
}

word_list words_of_path(std::string_view path) {
    word_list words;
    add_words(words, path.substr(0, comparison_limit));
    words.erase(words.begin(), words.size() > words_max ? words.end() - words_max : words.begin());
    return words;
}

word_list words_of_row(const schema_row& row) {
    word_list words;
    add_words(words, row.pattern);
    add_words(words, row.form.help);
    if (row.rule != schema_tuple_rule::list) {
        for (const schema_field& field : row.fields) {
            add_words(words, field.name);
        }
    }
    return words;
}

/// Returns the number of characters that must be inserted, deleted or replaced to turn one text into the other, or some
/// number of at least `limit` if that number is not below `limit`. Neither text may be longer than comparison_limit.
size_t edit_distance(std::string_view from, std::string_view to, size_t limit) {
    while (!from.empty() && !to.empty() && from.front() == to.front()) {
        from.remove_prefix(1);
        to.remove_prefix(1);
    }
    const size_t difference = std::max(from.size(), to.size()) - std::min(from.size(), to.size());
    if (difference >= limit) {
        return limit;
    }
    std::array<uint16_t, comparison_limit + 1> distances;
    std::iota(distances.begin(), distances.end(), uint16_t{0});
    for (size_t i = 0; i < from.size(); i++) {
        uint16_t diagonal = distances[0];
        distances[0] = static_cast<uint16_t>(i + 1);
        for (size_t j = 0; j < to.size(); j++) {
            const int replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = distances[j + 1];
            distances[j + 1] = static_cast<uint16_t>(std::min({replaced, distances[j] + 1, distances[j + 1] + 1}));
        }
    }
    return distances[to.size()];
}

/// Returns how similar two words are, from 0 (not at all) to 4 (equal).
size_t likeness(std::string_view wanted, std::string_view found) {
    constexpr size_t shortest_beginning = 3;
    constexpr size_t longest_ending = 1;  // such as the "s" of a plural
    constexpr size_t shortest_typing_error = 4;
    constexpr size_t shortest_two_errors = 7;
    if (wanted == found) {
        return 4;
    }
    const size_t length = std::min(wanted.size(), found.size());
    const bool has_ending = wanted.starts_with(found) && wanted.size() - found.size() <= longest_ending;
    if (length >= shortest_beginning && (has_ending || found.starts_with(wanted))) {
        return 3;
    }
    const size_t errors = length >= shortest_two_errors ? 2 : 1;
    return length >= shortest_typing_error && edit_distance(wanted, found, errors + 1) <= errors ? 2 : 0;
}

size_t best_likeness(const std::string& wanted, const word_list& words) {
    size_t best = 0;
    for (const std::string& word : words) {
        best = std::max(best, likeness(wanted, word));
    }
    return best;
}

/// Returns for each row how much it has in common with a path. The fewer rows contain a word, the more the word counts.
std::vector<size_t> common_words(std::string_view path) {
    std::vector<word_list> words_of_rows;
    words_of_rows.reserve(schema_rows().size());
    for (const schema_row& row : schema_rows()) {
        words_of_rows.push_back(words_of_row(row));
    }
    std::vector<size_t> sums(words_of_rows.size());
    for (const std::string& wanted : words_of_path(path)) {
        std::vector<size_t> found(words_of_rows.size());
        std::transform(words_of_rows.begin(), words_of_rows.end(), found.begin(),
                       [&wanted](const word_list& words) { return best_likeness(wanted, words); });
        const auto rows =
            static_cast<size_t>(std::count_if(found.begin(), found.end(), [](size_t n) { return n > 0; }));
        for (size_t i = 0; i < found.size(); i++) {
            sums[i] += rows == 0 ? 0 : found[i] * found.size() / rows;
        }
    }
    return sums;
}

/// Returns the pattern with each "*" replaced by the corresponding name in the path, so that names do not count as
/// differences.
std::string filled_pattern(std::string_view pattern, std::string_view path) {
    std::string filled;
    while (!pattern.empty()) {
        const std::string_view expected = schema_cut_component(pattern);
        const std::string_view found = schema_cut_component(path);
        filled.append("/").append(expected == "*" && !found.empty() ? found : expected);
    }
    return filled;
}

/// Returns the last components of a pattern, as many as the path has.
std::string_view comparable_end(std::string_view pattern, std::string_view path) {
    size_t start = pattern.size();
    for (auto slashes = std::count(path.begin(), path.end(), '/') + 1; slashes > 0 && start > 0; slashes--) {
        start = pattern.rfind('/', start - 1);
    }
    return pattern.substr(start);
}

/// Returns the number of characters in which a row and a path differ, or some number of at least `limit`.
size_t different_letters(const schema_row& row, std::string_view path, size_t limit) {
    const std::string_view pattern = row.pattern;
    const bool is_absolute = path.starts_with('/');
    const std::string filled = is_absolute ? filled_pattern(pattern.substr(1), path.substr(1))
                                           : filled_pattern(comparable_end(pattern, path).substr(1), path);
    const std::string compared = (is_absolute ? "" : "/") + std::string(path);
    return edit_distance(std::string_view(compared).substr(0, comparison_limit),
                         std::string_view(filled).substr(0, comparison_limit), limit);
}

}  // namespace

const schema_row& schema_nearest(std::string_view path) {
    const std::string_view compared = path.substr(0, comparison_limit);
    const std::vector<size_t> common = common_words(path);
    const size_t most = *std::max_element(common.begin(), common.end());
    const schema_row* nearest = &schema_rows().front();
    size_t least = SIZE_MAX;
    for (size_t i = 0; i < common.size(); i++) {
        const schema_row& row = schema_rows()[i];
        const size_t letters = common[i] == most ? different_letters(row, compared, least) : SIZE_MAX;
        if (letters < least) {
            nearest = &row;
            least = letters;
        }
    }
    return *nearest;
}

std::vector<const schema_row*> schema_search(std::string_view text) {
    std::vector<const schema_row*> found;
    const word_list wanted = words_of_path(text);
    for (const schema_row& row : schema_rows()) {
        const word_list words = words_of_row(row);
        const bool has_all = std::all_of(wanted.begin(), wanted.end(),
                                         [&words](const std::string& word) { return best_likeness(word, words) > 0; });
        if (has_all && !wanted.empty()) {
            found.push_back(&row);
        }
    }
    return found;
}
