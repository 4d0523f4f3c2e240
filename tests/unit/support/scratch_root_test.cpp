#include "scratch_root.h"

#include <gtest/gtest.h>

TEST(scratch_root, is_entered) {
    EXPECT_TRUE(scratch_root::entered());
}
