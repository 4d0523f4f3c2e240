#include "golden.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace {

TEST(golden, the_same_text_passes) {
    expect_golden("support/golden/two_lines", "first\nsecond\n");
}

TEST(golden, another_text_fails_at_its_first_difference) {
    if (renewing_golden_files()) {
        return;  // With UPDATE_GOLDEN the wrong text would replace the right one.
    }
    EXPECT_NONFATAL_FAILURE(expect_golden("support/golden/two_lines", "first\nthird\n"),
                            "line 2\n  expected: second\n  actual:   third");
    EXPECT_NONFATAL_FAILURE(expect_golden("support/golden/two_lines", "first\n"), "line 2\n  expected: second");
    EXPECT_NONFATAL_FAILURE(expect_golden("support/golden/two_lines", "first\nsecond\n\n"), "line 3");
}

TEST(golden, a_missing_file_fails) {
    if (renewing_golden_files()) {
        return;
    }
    EXPECT_NONFATAL_FAILURE(expect_golden("support/golden/missing", ""), "there is no golden file");
}

}  // namespace
