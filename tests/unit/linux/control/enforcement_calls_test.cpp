#include <gmock/gmock.h>

#include "unit/linux/control/calls_support.h"
#include "unit/linux/enforcement/enforcement_test_support.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class control_enforcement_calls_test : public control_test::calls_test {
  protected:
    enforcement_test::reset_at_end reset;
    enforcement_test::comparison_script script;
};

TEST_F(control_enforcement_calls_test, an_agent_without_comparison_reports_that) {
    for (const char* request : {R"({"call":"verify"})", R"({"call":"repair"})"}) {
        const control_json answer = ask(request);
        EXPECT_EQ(answer["result"], "failed");
        EXPECT_EQ(answer["message"],
                  "this agent cannot compare the configuration with the machine: no comparison is registered");
        EXPECT_FALSE(answer.contains("data"));
    }
}

TEST_F(control_enforcement_calls_test, verify_lists_the_differences_and_changes_nothing) {
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    EXPECT_EQ(control_json_text(ask(R"({"call":"verify"})")), R"({"result":"done","data":[]})");
    script.found = {{"file /a", "Ciphers"}, {"server mgmt", "does not run"}};
    script.remaining = 2;
    const control_json answer = ask(R"({"call":"verify"})");
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_EQ(answer["message"], "2 differences between the configuration and the machine");
    EXPECT_EQ(control_json_text(answer["data"]),
              R"([{"subject":"file /a","text":"Ciphers"},{"subject":"server mgmt","text":"does not run"}])");
    EXPECT_THAT(script.runs, testing::ElementsAre(0U, 0U));
    EXPECT_TRUE(audit.empty()) << "nothing was changed";
}

TEST_F(control_enforcement_calls_test, a_failed_comparison_is_a_failure) {
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    script.remaining = -1;
    for (const char* request : {R"({"call":"verify"})", R"({"call":"repair"})"}) {
        EXPECT_EQ(message(request), "the comparison failed; the agent's log says why");
    }
    EXPECT_THAT(audit.back(), AllOf(HasSubstr("call:=repair, result:=failed"), HasSubstr("the comparison failed")));
}

TEST_F(control_enforcement_calls_test, repair_reports_what_it_repaired) {
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    script.found = {{"file /a", "Ciphers"}};
    const control_json answer = ask(R"({"call":"repair"})");
    EXPECT_EQ(answer["result"], "done");
    EXPECT_EQ(control_json_text(answer["data"]),
              R"({"repaired":[{"subject":"file /a","text":"Ciphers"}],"remaining":[]})");
    EXPECT_THAT(script.runs, testing::ElementsAre(2U));
    EXPECT_FALSE(enforcement_any_failed());
    EXPECT_THAT(audit.back(), AllOf(HasSubstr("call:=repair, result:=done"), HasSubstr("repaired file /a: Ciphers")));
}

TEST_F(control_enforcement_calls_test, repair_reports_what_it_could_not_repair) {
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    script.found = {{"file /a", "Ciphers"}, {"server mgmt", "does not run"}};
    script.remaining = 1;
    script.meanwhile = [this] {
        if (script.runs.back() == 0) {
            return;
        }
        enforcement_failed("server mgmt", "exit status 1");
        script.found.erase(script.found.begin());
    };
    const control_json answer = ask(R"({"call":"repair"})");
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_EQ(answer["message"], "1 difference could not be repaired");
    EXPECT_EQ(control_json_text(answer["data"]), R"({"repaired":[{"subject":"file /a","text":"Ciphers"}],)"
                                                 R"("remaining":[{"subject":"server mgmt","text":"does not run"}]})");
    EXPECT_THAT(script.runs, testing::ElementsAre(2U, 0U));
    EXPECT_THAT(audit.back(), AllOf(HasSubstr("result:=failed"), HasSubstr("repaired file /a: Ciphers"),
                                    HasSubstr("not repaired server mgmt: does not run")));
}

}  // namespace
