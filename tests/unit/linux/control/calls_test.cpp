#include "linux/control/calls.h"

#include "unit/linux/control/calls_support.h"

namespace {

using testing::HasSubstr;

class control_calls_test : public control_test::calls_test {};

TEST_F(control_calls_test, an_unknown_call_is_a_usage_error_that_names_it) {
    EXPECT_EQ(result(R"({"call":"format"})"), "usage");
    EXPECT_EQ(message(R"({"call":"for\nmat"})"), "unknown call \"for\\x0amat\"");
    EXPECT_LT(message(R"({"call":")" + std::string(5000, 'x') + "\"}").size(), 100U);
    EXPECT_EQ(result(R"({"call":""})"), "usage");
}

TEST_F(control_calls_test, a_missing_or_wrong_member_is_a_usage_error_that_names_it) {
    const std::pair<const char*, const char*> rows[] = {
        {R"({"call":"set","value":1})", "path"},
        {R"({"call":"set","path":1,"value":1})", "path"},
        {R"({"call":"set","path":"@cmn/timeout"})", "value"},
        {R"({"call":"delete"})", "path"},
        {R"({"call":"delete","path":[]})", "path"},
        {R"({"call":"load"})", "items"},
        {R"({"call":"load","items":[]})", "items"},
        {R"({"call":"load","items":{},"check":1})", "check"},
        {R"({"call":"get"})", "path"},
        {R"({"call":"list","path":null})", "path"},
        {R"({"call":"show"})", "path"},
        {R"({"call":"debug","flag":1})", "flag"},
        {R"({"call":"debug","flag":"x"})", "on"},
        {R"({"call":"debug","flag":"x","on":"yes"})", "on"},
        {R"({"call":"trace"})", "buffer"},
    };
    for (const auto& [request, member] : rows) {
        EXPECT_EQ(result(request), "usage") << request;
        EXPECT_THAT(message(request), HasSubstr("member \"" + std::string(member) + '"')) << request;
    }
    EXPECT_TRUE(take_calls().empty());
}

TEST_F(control_calls_test, members_that_a_call_does_not_know_do_no_harm) {
    EXPECT_EQ(result(R"({"call":"dump","colour":"red"})"), "done");
}

}  // namespace
