#include "ssh_cfg_ctl/mistakes.h"

#include <gmock/gmock.h>

namespace {

constexpr char router_file[] = "{\n  \"/a\": 1,\n  \"/b\": 2,\n  \"/c\": 3}\n";

control_json located(const std::string& file, const char* json) {
    std::string error;
    control_json answer = control_json_parse(json, error).value_or(control_json());
    ctl_locate_mistakes({"router.json", ctl_members(file)}, answer);
    return answer;
}

TEST(ctl_locate_mistakes, each_refused_item_has_its_place) {
    EXPECT_EQ(located(router_file, R"({"result":"refused","message":"x","refusals":[{"path":"/c","text":"bad c"},)"
                                   R"({"path":"/a","text":"bad a"}],"more_refusals":7})")["message"],
              "router.json: line 2, column 3: bad a\nrouter.json: line 4, column 3: bad c\n7 more items were refused");
    EXPECT_EQ(located(router_file, R"({"result":"refused","message":"a verifier says no","path":"/b"})")["message"],
              "router.json: line 3, column 3: a verifier says no");
    EXPECT_EQ(located(router_file, R"({"result":"no_data","message":"absent","path":"/b"})")["result"], "no_data");
}

TEST(ctl_locate_mistakes, other_answers_stay_as_they_are) {
    EXPECT_EQ(located(router_file, R"({"result":"refused","message":"not an administrator"})")["message"],
              "not an administrator");
    EXPECT_EQ(located(router_file, R"({"result":"failed","message":"no space","path":"/a"})")["message"], "no space");
    EXPECT_EQ(located("", R"({"result":"refused","message":"no","path":"/a"})")["message"], "no");
    EXPECT_FALSE(located(router_file, R"({"result":"done"})").contains("message"));
}

TEST(ctl_locate_mistakes, duplicates_are_reported_with_the_agents_findings) {
    constexpr char doubled[] = "{\"/a\": 1,\n\"/a\": 2,\n\"/b\": 3}";
    const control_json answer =
        located(doubled, R"({"result":"refused","message":"x","refusals":[{"path":"/b","text":"bad b"}]})");
    EXPECT_EQ(answer["message"],
              "router.json: line 2, column 1: /a: duplicate name, already used in line 1, column 2\n"
              "router.json: line 3, column 1: bad b");
    EXPECT_EQ(located(doubled, R"({"result":"done","check":true})")["result"], "refused");
}

}  // namespace
