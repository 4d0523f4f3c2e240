/// Golden files: compares generated text with a file in the source tree.
///
/// With UPDATE_GOLDEN=1 in the environment (UPDATE_GOLDEN=1 ctest) the files are rewritten instead.
#ifndef SUPPORT_GOLDEN_H
#define SUPPORT_GOLDEN_H

#include <string>
#include <string_view>

/// Expects `actual` to be the content of the golden file at `path`, relative to the directory of the unit tests
/// ("config_files/golden/fresh_start"). A difference is a test failure that shows the first differing line.
void expect_golden(const std::string& path, std::string_view actual, const char* file = __builtin_FILE(),
                   int line = __builtin_LINE());

/// Whether golden files are being rewritten.
bool renewing_golden_files();

#endif
