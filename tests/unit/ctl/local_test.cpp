#include "ssh_cfg_ctl/local.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

std::string text_of_answer(const std::string& json) {
    std::string error;
    const auto answer = control_json_parse(json, error);
    EXPECT_TRUE(answer.has_value()) << error;
    return ctl_local_text(answer.value_or(control_json()));
}

TEST(ctl_local_texts, a_judgement_has_the_reason_below_its_line) {
    EXPECT_EQ(
        text_of_answer(
            R"({"data":[{"outcome":"accepted","place":"/f, line 1","directive":"MACs -*sha1","text":"","vrf":null},)"
            R"({"outcome":"refused","place":"/f, line 2","directive":"Prt \u001b","text":"unknown keyword","vrf":"red"},)"
            R"({"outcome":"refused","place":"","directive":"","text":"/f refused: it is a symbolic link","vrf":null}]})"),
        "accepted   /f, line 1: MACs -*sha1\n"
        "refused    /f, line 2: Prt \\x1b (VRF red)\n"
        "           unknown keyword\n"
        "refused    /f refused: it is a symbolic link\n");
    EXPECT_EQ(text_of_answer(R"({"data":[]})"), "no local directives\n");
}

TEST(ctl_local_texts, the_state_names_the_places_and_why_others_are_in_force) {
    EXPECT_EQ(text_of_answer(
                  R"({"data":[{"vrf":"blue","in_use":"none","directives":[],"problems":[]},)"
                  R"({"vrf":"red","in_use":"last_accepted","problems":["/f, line 2: refused"],"directives":[)"
                  R"({"place":"/f, line 1","directive":"MACs a"},{"place":"/g, line 2","directive":"DebianBanner no"},)"
                  R"({"place":"/g, line 3","directive":"MACs aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"}]},)"
                  R"({"vrf":"tan","in_use":"left_out","problems":["/f refused"],"directives":[]}]})"),
              "VRF blue: no local directives\n"
              "VRF red: the last accepted local directives, because the present ones are refused\n"
              "  /f, line 2: refused\n"
              "  MACs a           /f, line 1\n"
              "  DebianBanner no  /g, line 2\n"
              "  MACs aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa  /g, line 3\n"
              "VRF tan: no local directives, because the present ones are refused\n"
              "  /f refused\n");
}

TEST(ctl_local_texts, a_change_names_the_file_and_the_servers) {
    EXPECT_EQ(text_of_answer(R"({"changed":true,"path":"/f","restarted":["blue","red"]})"),
              "changed    /f\nrestarted  blue, red\n");
    EXPECT_EQ(text_of_answer(R"({"changed":false,"path":"/f","restarted":[]})"),
              "unchanged  /f\nno server restarted\n");
    EXPECT_EQ(text_of_answer(R"({"changed":false,"restarted":[]})"), "no server restarted\n");
}

TEST(ctl_local_arguments, wrong_ones_are_no_request) {
    const ctl_connection_settings settings = {"/nonexistent", 1, false};
    for (const std::vector<std::string>& words : {std::vector<std::string>{},
                                                  {"shw"},
                                                  {"show", "a", "b"},
                                                  {"set", "red"},
                                                  {"edit", "a", "b"},
                                                  {"apply", "red"},
                                                  {"check", "a", "b", "c"},
                                                  {"show", "--all"},
                                                  {"set", "\xff", "-"}}) {
        EXPECT_TRUE(ctl_local(settings, words).is_null());
    }
}

}  // namespace
