#include "ssh_cfg_ctl/print.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

control_json json(const char* text) {
    std::string error;
    auto document = control_json_parse(text, error);
    EXPECT_TRUE(document.has_value()) << error;
    return document.value_or(control_json());
}

TEST(ctl_records_text, plain_records_are_a_table) {
    EXPECT_EQ(ctl_records_text(json(R"([{"name":"default","id":7,"in_use":true},{"name":"red","in_use":false}])"), 0),
              "name     id  in use\n"
              "default  7   yes\n"
              "red      -   no\n");
}

TEST(ctl_records_text, columns_count_characters_not_bytes) {
    EXPECT_EQ(ctl_records_text(json(R"([{"a":"üü","b":1},{"a":"x","b":2}])"), 0), "a   b\nüü  1\nx   2\n");
}

TEST(ctl_records_text, nothing_is_nothing) {
    EXPECT_EQ(ctl_records_text(json("[]"), 0), "");
}

TEST(ctl_records_text, records_that_hold_records_are_blocks) {
    EXPECT_EQ(
        ctl_records_text(json(R"([{"id":1,"channels":[{"type":"shell"},{"type":"exec"}],"keys":[]},{"id":2}])"), 0),
        "id: 1\n"
        "channels:\n"
        "  type: shell\n"
        "\n"
        "  type: exec\n"
        "keys: none\n"
        "\n"
        "id: 2\n");
}

TEST(ctl_records_text, too_wide_a_table_becomes_blocks) {
    const std::string long_text(200, 'x');
    EXPECT_EQ(ctl_records_text(json((R"([{"a":")" + long_text + R"(","bb":null}])").c_str()), 160),
              "a:  " + long_text + "\nbb: -\n");
}

TEST(ctl_records_text, a_terminal_gets_nothing_to_obey) {
    EXPECT_EQ(ctl_records_text(json(R"([{"\u001b[1m":"\u0007\u009b"}])"), 0), "\\x1b[1m\n\\x07\\xc2\\x9b\n");
}

TEST(ctl_record_text, values_stand_below_each_other) {
    EXPECT_EQ(ctl_record_text(json(R"({"pid":1,"respawn_count":2})")), "pid:           1\nrespawn count: 2\n");
}

TEST(ctl_data_text, takes_whatever_comes) {
    EXPECT_EQ(ctl_data_text(json("3"), 0), "3\n");
    EXPECT_EQ(ctl_data_text(json(R"({"a":1})"), 0), "a: 1\n");
    EXPECT_EQ(ctl_data_text(json(R"([{"a":1}])"), 0), "a\n1\n");
    EXPECT_EQ(ctl_data_text(json(R"([1,[2]])"), 0), "1\n\n2\n");
}

TEST(ctl_configuration_text, is_json_with_one_item_a_line) {
    const control_json items = json(R"({"/a":1,"/b":[null,"x\n"]})");
    EXPECT_EQ(ctl_configuration_text(items), "{\n  \"/a\": 1,\n  \"/b\": [null,\"x\\n\"]\n}\n");
    EXPECT_EQ(json(ctl_configuration_text(items).c_str()), items);
    EXPECT_EQ(ctl_configuration_text(control_json::object()), "{}\n");
}

}  // namespace
