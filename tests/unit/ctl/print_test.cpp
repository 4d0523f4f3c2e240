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

TEST(ctl_records_text, plain_records_form_a_table) {
    EXPECT_EQ(ctl_records_text(json(R"([{"name":"default","id":7,"in_use":true},{"name":"red","in_use":false}])"), 0),
              "name     id  in use\n"
              "default  7   yes\n"
              "red      -   no\n");
}

TEST(ctl_records_text, columns_count_characters_not_bytes) {
    EXPECT_EQ(ctl_records_text(json(R"([{"a":"üü","b":1},{"a":"x","b":2}])"), 0), "a   b\nüü  1\nx   2\n");
}

TEST(ctl_records_text, lines_do_not_end_in_blanks) {
    EXPECT_EQ(ctl_records_text(json(R"([{"a":1,"note":""},{"a":2,"note":"long"}])"), 0), "a  note\n1\n2  long\n");
}

TEST(ctl_records_text, no_records_print_nothing) {
    EXPECT_EQ(ctl_records_text(json("[]"), 0), "");
}

TEST(ctl_records_text, nested_records_are_printed_as_blocks) {
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

TEST(ctl_records_text, a_table_that_is_too_wide_becomes_blocks) {
    const std::string long_text(200, 'x');
    EXPECT_EQ(ctl_records_text(json((R"([{"a":")" + long_text + R"(","bb":null}])").c_str()), 160),
              "a:  " + long_text + "\nbb: -\n");
}

TEST(ctl_records_text, output_contains_no_control_sequences) {
    EXPECT_EQ(ctl_records_text(json(R"([{"\u001b[1m":"\u0007\u009b"}])"), 0), "\\x1b[1m\n\\x07\\xc2\\x9b\n");
}

TEST(ctl_record_text, values_are_aligned) {
    EXPECT_EQ(ctl_record_text(json(R"({"pid":1,"respawn_count":2})")), "pid:           1\nrespawn count: 2\n");
}

TEST(ctl_data_text, accepts_any_data) {
    EXPECT_EQ(ctl_data_text(json("3"), 0), "3\n");
    EXPECT_EQ(ctl_data_text(json(R"({"a":1})"), 0), "a: 1\n");
    EXPECT_EQ(ctl_data_text(json(R"([{"a":1}])"), 0), "a\n1\n");
    EXPECT_EQ(ctl_data_text(json(R"([1,[2]])"), 0), "1\n\n2\n");
}

TEST(ctl_configuration_text, is_json_with_one_item_per_line) {
    const control_json items = json(R"({"/a":1,"/b":[null,"x\n"]})");
    EXPECT_EQ(ctl_configuration_text(items), "{\n  \"/a\": 1,\n  \"/b\": [null,\"x\\n\"]\n}\n");
    EXPECT_EQ(json(ctl_configuration_text(items).c_str()), items);
    EXPECT_EQ(ctl_configuration_text(control_json::object()), "{}\n");
}

}  // namespace
