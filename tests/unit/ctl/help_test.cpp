#include "ssh_cfg_ctl/help.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

TEST(ctl_call_help_text, has_usage_purpose_and_examples) {
    EXPECT_EQ(ctl_call_help_text(*ctl_find_call("get")),
              "usage: ssh_cfg_ctl [OPTION...] get PATH\n\nprint the stored value of an item\n\nFor example:\n"
              "  ssh_cfg_ctl get timeout\n\nThe manual page ssh_cfg_ctl(1) says more.\n");
}

/// The examples in the help of all calls.
std::vector<std::string> all_examples() {
    std::vector<std::string> examples;
    for (const ctl_call_row& row : ctl_calls()) {
        std::istringstream lines(ctl_call_help_text(row));
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("  ssh_cfg_ctl ")) {
                examples.push_back(std::string(row.name) + ": " + line);
            }
        }
    }
    return examples;
}

TEST(ctl_call_help_text, examples_are_those_of_the_call) {
    const std::vector<std::string> examples = all_examples();
    EXPECT_GT(examples.size(), 15U);
    for (const std::string& example : examples) {
        const std::string call = example.substr(0, example.find(':'));
        EXPECT_THAT(example, StartsWith(call + ":   ssh_cfg_ctl " + call)) << example;
    }
}

TEST(ctl_calls_json, describes_one_call_or_all) {
    EXPECT_EQ(control_json_text(ctl_calls_json(ctl_find_call("get"))),
              R"([{"name":"get","arguments":"PATH","purpose":"print the stored value of an item"}])");
    EXPECT_EQ(ctl_calls_json(nullptr).size(), ctl_calls().size());
}

TEST(ctl_summary_text, names_every_call) {
    for (const ctl_call_row& row : ctl_calls()) {
        EXPECT_THAT(ctl_summary_text(), HasSubstr(std::string("\n  ") + row.name + ' '));
    }
}

}  // namespace
