#include "common/line_changes.h"

#include <algorithm>

#include "common/text.h"

namespace {

constexpr size_t changes_max = 500;

/// Beyond this, all lines between the first and the last difference count as changed.
constexpr size_t comparisons_max = 4'000'000;

using line_list = std::vector<std::string_view>;

line_list split_lines(std::string_view text) {
    line_list lines;
    while (!text.empty()) {
        lines.push_back(text.substr(0, text.find('\n')));
        text.remove_prefix(std::min(text.size(), lines.back().size() + 1));
    }
    return lines;
}

/// Removes the lines with which both begin, and those with which both end.
void cut_common_ends(line_list& before, line_list& after) {
    const auto first = std::ranges::mismatch(before, after);
    before.erase(before.begin(), first.in1);
    after.erase(after.begin(), first.in2);
    while (!before.empty() && !after.empty() && before.back() == after.back()) {
        before.pop_back();
        after.pop_back();
    }
}

/// The lengths of the longest common subsequences of all pairs of remainders.
class common_lengths {
  public:
    common_lengths(const line_list& before, const line_list& after)
        : width_(after.size() + 1), lengths_((before.size() + 1) * width_) {
        for (size_t i = before.size(); i-- > 0;) {
            for (size_t j = after.size(); j-- > 0;) {
                lengths_[i * width_ + j] =
                    before[i] == after[j] ? at(i + 1, j + 1) + 1 : std::max(at(i + 1, j), at(i, j + 1));
            }
        }
    }

    uint32_t at(size_t i, size_t j) const { return lengths_[i * width_ + j]; }

  private:
    size_t width_;
    std::vector<uint32_t> lengths_;
};

std::vector<std::string> compare(const line_list& before, const line_list& after) {
    std::vector<std::string> changes;
    const auto remove = [&](size_t i) { changes.push_back('-' + std::string(before[i])); };
    const auto add = [&](size_t j) { changes.push_back('+' + std::string(after[j])); };
    size_t i = 0;
    size_t j = 0;
    if (before.size() * after.size() <= comparisons_max) {
        const common_lengths lengths(before, after);
        while (i < before.size() && j < after.size()) {
            if (before[i] == after[j]) {
                ++i;
                ++j;
            } else if (lengths.at(i + 1, j) >= lengths.at(i, j + 1)) {
                remove(i++);
            } else {
                add(j++);
            }
        }
    }
    while (i < before.size()) {
        remove(i++);
    }
    while (j < after.size()) {
        add(j++);
    }
    return changes;
}

}  // namespace

std::vector<std::string> line_changes(std::string_view before, std::string_view after) {
    line_list old_lines = split_lines(before);
    line_list new_lines = split_lines(after);
    cut_common_ends(old_lines, new_lines);
    std::vector<std::string> changes = compare(old_lines, new_lines);
    if (changes.size() > changes_max) {
        const size_t total = changes.size();
        changes.resize(changes_max);
        changes.push_back(text_format("... %zu changed lines in total", total));
    }
    return changes;
}
