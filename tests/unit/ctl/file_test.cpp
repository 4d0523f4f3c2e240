#include "ssh_cfg_ctl/file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

using testing::HasSubstr;

struct scratch_file {
    std::string name;
    explicit scratch_file(const std::string& text) {
        char pattern[] = "/tmp/ctl_file_test_XXXXXX";
        close(mkstemp(pattern));
        name = pattern;
        std::ofstream(name) << text;
    }
    ~scratch_file() { unlink(name.c_str()); }
};

TEST(ctl_read_file, returns_the_whole_file) {
    const std::string text = std::string(200'000, 'x') + '\0' + "end";
    const scratch_file file(text);
    control_json problem;
    EXPECT_EQ(ctl_read_file(file.name, problem), text);
    EXPECT_TRUE(problem.is_null());
}

TEST(ctl_read_file, names_the_file_that_cannot_be_read) {
    control_json problem;
    EXPECT_FALSE(ctl_read_file("/nowhere/at/all", problem).has_value());
    EXPECT_EQ(problem["result"], "failed");
    EXPECT_EQ(problem["message"], "/nowhere/at/all: No such file or directory");
    EXPECT_FALSE(ctl_read_file("/tmp", problem).has_value());
    EXPECT_EQ(problem["message"], "/tmp: Is a directory");
}

TEST(ctl_read_file, an_endless_file_is_refused) {
    control_json problem;
    EXPECT_FALSE(ctl_read_file("/dev/zero", problem).has_value());
    EXPECT_EQ(problem["result"], "refused");
    EXPECT_THAT(problem["message"].get<std::string>(), HasSubstr("/dev/zero: larger than 16 MiB"));
}

TEST(ctl_read_json_file, reads_a_document) {
    const scratch_file file("{\"/a\": 1}\n");
    control_json problem;
    const auto document = ctl_read_json_file(file.name, problem);
    ASSERT_TRUE(document.has_value());
    EXPECT_EQ(control_json_text(*document), "{\"/a\":1}");
}

TEST(ctl_read_json_file, reports_the_position_of_the_error) {
    const scratch_file broken("{\n\"/a\": 1,\n}\n");
    const scratch_file doubled("{\"/a\": 1, \"/a\": 2}");
    control_json problem;
    EXPECT_FALSE(ctl_read_json_file(broken.name, problem).has_value());
    EXPECT_EQ(problem["result"], "refused");
    EXPECT_THAT(problem["message"].get<std::string>(), HasSubstr(broken.name + ": not JSON: parse error at line 3"));
    EXPECT_FALSE(ctl_read_json_file(doubled.name, problem).has_value());
    EXPECT_EQ(problem["message"], doubled.name + ": duplicate name \"/a\" in one object");
}

TEST(ctl_read_items_file, reports_all_duplicates_with_their_places) {
    const scratch_file file(
        "{\n  \"/a\": 1,\n  \"/b\": {\"x\": 1, \"x\": 2}, \"/a\": [1, \"}\"],\n  \"\\u002fa\": 3\n}\n");
    control_json problem;
    EXPECT_FALSE(ctl_read_items_file(file.name, problem).has_value());
    EXPECT_EQ(problem["message"],
              file.name + ": line 3, column 3: /b: duplicate name \"x\" in one object\n" + file.name +
                  ": line 3, column 27: /a: duplicate name, already used in line 2, column 3\n" + file.name +
                  ": line 4, column 3: /a: duplicate name, already used in line 2, column 3");
}

TEST(ctl_read_items_file, leaves_duplicates_out_if_their_places_are_wanted) {
    const scratch_file file("{\"/a\": 1, \"/a\": {\"x\": 2},\n \"/b\": 2}");
    control_json problem;
    ctl_source source;
    const auto items = ctl_read_items_file(file.name, problem, &source);
    ASSERT_TRUE(items.has_value()) << problem;
    EXPECT_EQ(control_json_text(*items), R"({"/a":1,"/b":2})");
    EXPECT_TRUE(ctl_has_duplicates(source));
    ASSERT_EQ(source.members.size(), 3U);
    EXPECT_EQ(ctl_place_text(source.members[2]), "line 2, column 2");
}

}  // namespace
