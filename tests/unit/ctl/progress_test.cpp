#include "ssh_cfg_ctl/progress.h"

#include <gtest/gtest.h>

namespace {

const control_json half_way = {{"work", "restarting servers"}, {"done", 64}, {"total", 128}, {"waiting", false}};
const control_json before_another = {{"work", "applying /a"}, {"done", 0}, {"total", 2}, {"waiting", true}};

/// What is shown on standard error (`errors`) or else on standard output.
std::string shown_progress(ctl_progress form, const std::vector<control_json>& reports, bool errors) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    {
        ctl_progress_display display(form);
        for (const control_json& report : reports) {
            display.show(report);
        }
    }
    const std::string output = testing::internal::GetCapturedStdout();
    const std::string error_output = testing::internal::GetCapturedStderr();
    EXPECT_EQ(errors ? output : error_output, "");
    return errors ? error_output : output;
}

TEST(ctl_progress, is_told_in_words) {
    EXPECT_EQ(ctl_progress_text(half_way), "64 of 128: restarting servers");
    EXPECT_EQ(ctl_progress_text(before_another), "waiting for another change: 0 of 2: applying /a");
    EXPECT_EQ(ctl_progress_text({{"work", "letting systemd read the units"}, {"total", 0}}),
              "letting systemd read the units");
    EXPECT_EQ(ctl_progress_text({{"work", "a\x1b[2J"}}), "a\\x1b[2J") << "nothing controls the terminal";
}

TEST(ctl_progress, is_one_line_on_a_terminal_that_is_gone_at_the_end) {
    EXPECT_EQ(shown_progress(ctl_progress::terminal, {half_way, half_way, before_another}, true),
              "\r\x1b[Kssh_cfg_ctl: 64 of 128: restarting servers"
              "\r\x1b[Kssh_cfg_ctl: waiting for another change: 0 of 2: applying /a"
              "\r\x1b[K");
    EXPECT_EQ(shown_progress(ctl_progress::terminal, {}, true), "");
    const control_json long_path = {{"work", "applying /" + std::string(200, 'x')}};
    EXPECT_EQ(shown_progress(ctl_progress::terminal, {long_path}, true).size(), 4 + 79 + 4U) << "80 columns";
}

TEST(ctl_progress, is_lines_or_json_where_it_was_asked_for) {
    EXPECT_EQ(shown_progress(ctl_progress::lines, {half_way, half_way, before_another}, true),
              "ssh_cfg_ctl: 64 of 128: restarting servers\n"
              "ssh_cfg_ctl: waiting for another change: 0 of 2: applying /a\n");
    EXPECT_EQ(shown_progress(ctl_progress::json, {half_way}, false),
              "{\"progress\":" + control_json_text(half_way) + "}\n");
    EXPECT_EQ(shown_progress(ctl_progress::none, {half_way}, false), "");
}

}  // namespace
