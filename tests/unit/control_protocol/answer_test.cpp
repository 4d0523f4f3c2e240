#include "control_protocol/answer.h"

#include <gtest/gtest.h>

namespace {

TEST(control_answer, result_names_and_numbers_do_not_change) {
    const std::pair<control_result, const char*> rows[] = {{control_result::done, "done"},
                                                           {control_result::failed, "failed"},
                                                           {control_result::usage, "usage"},
                                                           {control_result::unreachable, "unreachable"},
                                                           {control_result::no_data, "no_data"},
                                                           {control_result::refused, "refused"},
                                                           {control_result::not_in_force, "not_in_force"}};
    for (size_t number = 0; number < std::size(rows); number++) {
        EXPECT_EQ(static_cast<size_t>(rows[number].first), number);
        EXPECT_STREQ(control_result_name(rows[number].first), rows[number].second);
        EXPECT_EQ(control_result_of_name(rows[number].second), rows[number].first);
    }
}

TEST(control_answer, an_unknown_result_is_a_failure) {
    EXPECT_EQ(control_result_of_name("excellent"), control_result::failed);
    EXPECT_EQ(control_result_of_name(""), control_result::failed);
}

TEST(control_answer, has_a_message_only_when_there_is_one) {
    EXPECT_EQ(control_json_text(control_answer(control_result::done)), R"({"result":"done"})");
    EXPECT_EQ(control_json_text(control_answer(control_result::refused, "no")),
              R"({"result":"refused","message":"no"})");
}

}  // namespace
