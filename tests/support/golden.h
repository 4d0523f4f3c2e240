/// Golden files: what a routine made, compared with a file in the source tree.
///
/// UPDATE_GOLDEN=1 in the environment (UPDATE_GOLDEN=1 ctest) writes the files anew instead.
#ifndef SUPPORT_GOLDEN_H
#define SUPPORT_GOLDEN_H

#include <string>
#include <string_view>

/// Expects `actual` to be the content of the golden file at `path`, relative to the directory of the unit tests
/// ("config_files/golden/fresh_start"). A difference is a test failure that shows the first line that differs.
void expect_golden(const std::string& path, std::string_view actual, const char* file = __builtin_FILE(),
                   int line = __builtin_LINE());

/// Whether golden files are being renewed.
bool renewing_golden_files();

#endif
