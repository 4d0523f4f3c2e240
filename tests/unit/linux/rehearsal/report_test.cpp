#include "linux/rehearsal/report.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(rehearsal_report_test, comes_back_as_it_was) {
    rehearsal_report report;
    report.files = {{"/etc/motd", rehearsed_change::deleted},
                    {"/x/\"y\"\n", rehearsed_change::created},
                    {"/z", rehearsed_change::changed, {"-a", "+b"}}};
    report.vrfs = {"blue", "red"};
    report.servers = {{"blue", rehearsed_action::started},
                      {"green", rehearsed_action::restarted},
                      {"red", rehearsed_action::stopped}};
    report.rejections = {{"/file", "words", true, {"/file2", "/file3"}}, {"/other", "", false, {}}};
    report.not_in_force = {{"server red", "it failed"}};
    rehearsal_report read;
    const std::string text = rehearsal_report_write(report);
    ASSERT_TRUE(rehearsal_report_read(text, read));
    EXPECT_EQ(rehearsal_report_write(read), text);
    ASSERT_EQ(read.files.size(), 3U);
    EXPECT_EQ(read.files[0].change, rehearsed_change::deleted);
    EXPECT_EQ(read.files[1].path, "/x/\"y\"\n");
    EXPECT_EQ(read.files[2].lines, (std::vector<std::string>{"-a", "+b"}));
    EXPECT_EQ(read.servers[2].action, rehearsed_action::stopped);
    EXPECT_TRUE(read.rejections[0].was_rejected);
    EXPECT_FALSE(read.rejections[1].was_rejected);
    EXPECT_EQ(read.rejections[0].others, (std::vector<std::string>{"/file2", "/file3"}));
    EXPECT_EQ(read.not_in_force[0].reason, "it failed");
}

TEST(rehearsal_report_test, a_problem_comes_back) {
    rehearsal_report report;
    report.problem = "no namespaces";
    rehearsal_report read;
    ASSERT_TRUE(rehearsal_report_read(rehearsal_report_write(report), read));
    EXPECT_EQ(read.problem, "no namespaces");
}

TEST(rehearsal_report_test, another_text_is_refused) {
    rehearsal_report read;
    read.problem = "unchanged";
    for (
        const char* text :
        {"", "[]", "{}", "{\"problem\":1}",
         R"({"problem":"","files":[{"path":"/a","change":"moved"}],"vrfs":[],"servers":[],"rejections":[],"not_in_force":[]})"}) {
        EXPECT_FALSE(rehearsal_report_read(text, read)) << text;
    }
    EXPECT_EQ(read.problem, "unchanged");
}

}  // namespace
