#include "acl/load_failure.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cwchar>
#include <string>

namespace {

class load_failure_test : public testing::Test {
  protected:
    load_failure_test() { clear_load_failure(); }
};

TEST_F(load_failure_test, without_a_recorded_reason_there_is_a_general_one) {
    EXPECT_STREQ(load_failure(), "the rules were not loaded");
}

TEST_F(load_failure_test, the_first_reason_counts_until_it_is_cleared) {
    note_load_failure("%s", "x");
    note_load_failure("entry %u is broken", 2U);
    EXPECT_STREQ(load_failure(), "x");
    clear_load_failure();
    note_load_failure("entry %u is broken", 2U);
    EXPECT_STREQ(load_failure(), "entry 2 is broken");
}

TEST_F(load_failure_test, a_long_reason_is_truncated) {
    note_load_failure("%s", std::string(600, 'r').c_str());
    EXPECT_EQ(load_failure(), std::string(511, 'r'));
}

TEST_F(load_failure_test, errno_is_left_alone) {
    errno = EEXIST;
    // This character does not exist in the locale, so formatting sets errno.
    note_load_failure("%lc", wint_t{0x20ac});
    EXPECT_EQ(errno, EEXIST);
}

}  // namespace
