#include "linux/enforcement/server_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/status.h"
#include "unit/linux/enforcement/enforcement_test_support.h"
#include "unit/linux/platform_test_support.h"

namespace {

using enforcement_test::comparison_script;
using enforcement_test::register_comparison;
using enforcement_test::subjects;
using platform_test::read_file;
using platform_test::write_file;
using testing::HasSubstr;

class server_settings_test : public testing::Test {
  protected:
    ~server_settings_test() override { server_settings_forget(); }

    /// A launcher that notes its arguments.
    static void install(const std::string& commands) {
        constexpr char program[] = "/pkg/bin/sshd";
        write_file(program, "#!/bin/sh\necho \"$*\" >> /tmp/asked\n" + commands + "\n");
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    }

    enforcement_test::reset_at_end reset;
};

TEST_F(server_settings_test, the_launcher_is_asked_once_for_all_servers) {
    install("echo 'sshd_config_red hostkey, port'; echo 'elsewhere port'; echo sshd_config_blue");
    EXPECT_EQ(server_settings_difference("red"), "hostkey, port");
    EXPECT_EQ(server_settings_difference("blue"), "");
    EXPECT_EQ(server_settings_difference("green"), "");
    EXPECT_EQ(read_file("/tmp/asked"), "-c\n");
    EXPECT_EQ(server_settings_failure(), "");
    install("");
    EXPECT_EQ(server_settings_difference("red"), "hostkey, port");
    server_settings_forget();
    EXPECT_EQ(server_settings_difference("red"), "");
}

TEST_F(server_settings_test, a_launcher_that_fails_is_a_difference_until_it_answers) {
    comparison_script script;
    script.meanwhile = [] { EXPECT_EQ(server_settings_difference("red"), "") << "it would restart the server"; };
    ASSERT_EQ(register_comparison(script), PLATFORM_OK);
    install("echo 'sshd_config_red hostkey'; exit 8");
    for (const bool repair : {false, true}) {
        const enforcement_comparison comparison = enforcement_reconcile(repair);
        EXPECT_EQ(comparison.remaining, 1);
        ASSERT_EQ(comparison.differences.size(), 1U);
        EXPECT_EQ(comparison.differences[0].subject, "server settings");
        EXPECT_THAT(comparison.differences[0].text, HasSubstr("the launcher could not compare them: "));
    }
    EXPECT_THAT(subjects(enforcement_list()), testing::ElementsAre("server settings"));
    install("");
    EXPECT_EQ(enforcement_reconcile(true).remaining, 0);
    EXPECT_FALSE(enforcement_any_failed());
}

}  // namespace
