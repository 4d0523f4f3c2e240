#include "openssh/sessions/session_numbers.h"

#include <gtest/gtest.h>

#include "scratch.h"

using namespace openssh;
using namespace openssh_test;

namespace {

class numbers_of_sessions : public testing::Test {
  protected:
    session_numbers load() const {
        session_numbers numbers = {.folder = folder_.path()};
        load_session_numbers(numbers);
        return numbers;
    }

    scratch_directory folder_;
    session_numbers numbers_ = load();
};

}  // namespace

TEST_F(numbers_of_sessions, are_consecutive_and_stay) {
    EXPECT_EQ(session_number(numbers_, "1.10"), 1U);
    EXPECT_EQ(session_number(numbers_, "2.20"), 2U);
    EXPECT_EQ(session_number(numbers_, "1.10"), 1U);
    session_numbers again = load();
    EXPECT_EQ(session_number(again, "2.20"), 2U);
    EXPECT_EQ(session_number(again, "3.30"), 3U);
}

TEST_F(numbers_of_sessions, are_not_used_twice) {
    session_number(numbers_, "1.10");
    forget_session_number(numbers_, "1.10");
    EXPECT_FALSE(exists(folder_.file("1.10")));
    session_numbers again = load();
    EXPECT_EQ(session_number(again, "1.10"), 2U);
}

TEST_F(numbers_of_sessions, that_are_damaged_are_given_again) {
    session_number(numbers_, "1.10");
    folder_.write("1.10", "x");
    folder_.write("2.20", "99999999999");
    EXPECT_EQ(session_number(numbers_, "1.10"), 2U);
    EXPECT_EQ(session_number(numbers_, "2.20"), 3U);
    folder_.write("last", "");
    session_numbers again = load();
    EXPECT_EQ(session_number(again, "2.20"), 3U);
    EXPECT_EQ(session_number(again, "3.30"), 4U) << "no number of a session that is still there";
}

TEST_F(numbers_of_sessions, without_a_folder_are_still_given) {
    session_numbers nowhere = {.folder = folder_.file("missing")};
    load_session_numbers(nowhere);
    EXPECT_EQ(session_number(nowhere, "1.10"), 1U);
    EXPECT_EQ(session_number(nowhere, "2.20"), 2U);
}

TEST_F(numbers_of_sessions, that_nobody_uses_are_forgotten) {
    session_number(numbers_, "1.10");
    session_number(numbers_, "2.20");
    forget_unused_numbers(numbers_, [](std::string_view key) { return key == "2.20"; });
    EXPECT_FALSE(exists(folder_.file("1.10")));
    EXPECT_TRUE(exists(folder_.file("2.20")));
    EXPECT_EQ(load().last, 2U);
}
