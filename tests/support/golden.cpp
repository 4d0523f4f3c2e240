#include "golden.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "files.h"

namespace {

std::string_view line_at(std::string_view text, size_t position) {
    const size_t begin = position == 0 ? 0 : text.rfind('\n', position - 1) + 1;
    return text.substr(begin, std::min(text.find('\n', position), text.size()) - begin);
}

/// Describes the first difference of two texts.
std::string first_difference(std::string_view expected, std::string_view actual) {
    const auto [in_expected, in_actual] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    const auto position = static_cast<size_t>(in_expected - expected.begin());
    const auto line = std::count(expected.begin(), in_expected, '\n') + 1;
    return "line " + std::to_string(line) + "\n  expected: " + std::string(line_at(expected, position)) +
           "\n  actual:   " + std::string(line_at(actual, position));
}

}  // namespace

bool renewing_golden_files() {
    const char* value = getenv("UPDATE_GOLDEN");
    return value != nullptr && *value != '\0' && *value != '0';
}

void expect_golden(const std::string& path, std::string_view actual, const char* file, int line) {
    const std::string golden = std::string(TEST_SOURCE_DIR) + "/" + path;
    if (renewing_golden_files()) {
        write_file(golden, actual);
        return;
    }
    const std::optional<std::string> expected = file_content(golden);
    if (!expected) {
        ADD_FAILURE_AT(file, line) << "there is no golden file " << path << "; UPDATE_GOLDEN=1 creates it";
    } else if (*expected != actual) {
        ADD_FAILURE_AT(file, line) << "differs from the golden file " << path << ", "
                                   << first_difference(*expected, actual) << "\nwhole text:\n"
                                   << actual;
    }
}
