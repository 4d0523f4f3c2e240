#include "host/banners.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "../algorithm_test.h"
#include "call_faults.h"
#include "platform/banner_service.h"
#include "scratch_root.h"

namespace {

using fake_platform::set_aaa_banner;
using fake_platform::set_configured_banner;
using fake_platform::set_platform_banner;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char banner_line[] = "/var/opt/norvo/norvossh/banner";
constexpr char motd[] = "/etc/motd";

class banners_test : public algorithm_test {
  protected:
    banners_test() { start(); }

    static void notify(uint32_t event = 3, const char* item = "0x3") {
        fake_platform::notify(std::string("/cfg/gl/banner/") + item, event, fake_platform::text_value("new"));
    }
    static void notify_aaa(uint32_t event = 3) {
        fake_platform::notify("/cfg/gl/aaa/banner/0x0", event, fake_platform::text_value("new"));
    }
    static std::string content() { return read_file(paths::banner_file); }
    static std::string line() { return value(paths::server_file, "Banner"); }

    static std::string message(const std::string& configured) {
        set_configured_banner(BANNER_LOGIN, configured);
        char* text = get_banner_msg(BANNER_LOGIN);
        std::string result = text != nullptr ? text : "nothing";
        std::free(text);
        return result;
    }
};

// --- The text --------------------------------------------------------------------------------------------------------

TEST_F(banners_test, delimiters_are_removed) {
    EXPECT_EQ(message("#Hello#"), "Hello");
    EXPECT_EQ(message("XHelloX"), "Hello");
    EXPECT_EQ(message("# two\nlines #"), " two\nlines ");
    EXPECT_TRUE(fake_platform::debugged("get_banner_msg entered"));
    EXPECT_TRUE(fake_platform::debugged("got banner msg Hello"));
}

// Everything from the last occurrence on is cut off.
TEST_F(banners_test, a_delimiter_inside_the_text_stays_and_the_last_one_ends_it) {
    EXPECT_EQ(message("#a#b#"), "a#b");
    EXPECT_EQ(message("#Hello#rest"), "Hello");
    EXPECT_EQ(message("#a#b#rest"), "a#b");
}

// A banner that lacks a character is better than no banner.
TEST_F(banners_test, a_text_without_a_closing_delimiter_is_not_cut) {
    EXPECT_EQ(message("#Hello"), "Hello");
    EXPECT_EQ(message("Hello"), "ello");
}

TEST_F(banners_test, an_empty_text_counts_as_absent) {
    for (const char* text : {"", "#", "##", "##rest"}) {
        EXPECT_EQ(message(text), "nothing") << text;
    }
    set_configured_banner(BANNER_LOGIN, std::nullopt);
    EXPECT_EQ(get_banner_msg(BANNER_LOGIN), nullptr);
}

TEST_F(banners_test, only_the_requested_kind_is_returned) {
    set_configured_banner(BANNER_MESSAGE_OF_THE_DAY, "#motd#");
    EXPECT_EQ(get_banner_msg(BANNER_LOGIN), nullptr);
    char* text = get_banner_msg(BANNER_MESSAGE_OF_THE_DAY);
    EXPECT_STREQ(text, "motd");
    std::free(text);
}

TEST_F(banners_test, any_bytes_are_kept) {
    const std::string control = "\x01\x02\t\r\n\x1b[31mred\x1b[0m\x7f\x07";
    EXPECT_EQ(message("#" + control + "#"), control);
    const std::string utf8 = "Zugang nur f\xc3\xbcr Befugte \xe2\x80\x94 \xe5\x8d\xb1\xe9\x99\xba \xf0\x9f\x94\x92";
    EXPECT_EQ(message("#" + utf8 + "#"), utf8);
    EXPECT_EQ(message("#%s%n%d#"), "%s%n%d");
    EXPECT_EQ(message("\xff\xfe\xfd\xff"), "\xfe\xfd");
}

// --- The banner file -------------------------------------------------------------------------------------------------

TEST_F(banners_test, a_login_banner_is_written_to_the_file_named_by_the_servers) {
    set_configured_banner(BANNER_LOGIN, "#Hello#");
    notify();
    EXPECT_EQ(content(), "Hello\n");
    EXPECT_EQ(line(), banner_line);
    EXPECT_STREQ(server_config.parameters[SERVER_BANNER].current, banner_line);
    EXPECT_THAT(
        fake_platform::debug_texts(),
        AllOf(Contains("banner config notified"), Contains(" banner file created"), Contains("login banner present"),
              Contains("writeToBanner enter"), Contains(std::string("file opened ") + banner_line)));
}

TEST_F(banners_test, without_any_banner_the_file_is_empty_and_not_named) {
    set_configured_banner(BANNER_LOGIN, "#Hello#");
    notify();
    set_configured_banner(BANNER_LOGIN, std::nullopt);
    notify(4);
    EXPECT_EQ(content(), "");
    EXPECT_EQ(line(), "no line");
    EXPECT_EQ(server_config.parameters[SERVER_BANNER].current, nullptr);
}

TEST_F(banners_test, the_texts_are_requested_in_a_fixed_order) {
    notify(3, "0x2");
    EXPECT_THAT(fake_platform::calls_of("banner_service_"),
                ElementsAre("banner_service_platform(3)", "banner_service_configured(3)", "banner_service_platform(2)",
                            "banner_service_configured(2)"));
}

// The platform's message of the day is never written; if there is one, its login banner is written twice.
TEST_F(banners_test, the_platforms_login_banner_replaces_its_message_of_the_day) {
    set_platform_banner(BANNER_MESSAGE_OF_THE_DAY, "platform motd");
    set_platform_banner(BANNER_LOGIN, "platform login");
    set_configured_banner(BANNER_MESSAGE_OF_THE_DAY, "#motd#");
    set_configured_banner(BANNER_LOGIN, "#login#");
    notify();
    EXPECT_EQ(content(), "platform login\nmotd\nplatform login\nlogin\n");
    EXPECT_EQ(line(), banner_line);
    EXPECT_THAT(fake_platform::debug_texts(),
                AllOf(Contains("platform banner present"), Contains("motd banner present"),
                      Contains("platform login banner present"), Contains("login banner present")));
}

// It counts as a banner nevertheless, so the servers name an empty file.
TEST_F(banners_test, a_platform_message_of_the_day_alone_is_a_failed_write) {
    set_platform_banner(BANNER_MESSAGE_OF_THE_DAY, "platform motd");
    notify();
    EXPECT_EQ(content(), "");
    EXPECT_EQ(line(), banner_line);
    EXPECT_TRUE(fake_platform::debugged("string is empty"));
    EXPECT_TRUE(fake_platform::debugged("platform motd banner write failed"));
}

TEST_F(banners_test, every_notice_rewrites_the_file) {
    set_configured_banner(BANNER_LOGIN, "#one#");
    notify();
    set_configured_banner(BANNER_LOGIN, "#two#");
    notify();
    EXPECT_EQ(content(), "two\n");
    notify(4);
    EXPECT_EQ(content(), "two\n") << "the text comes from the service, whatever the event";
}

TEST_F(banners_test, a_banner_of_100_kb_is_written_completely) {
    std::string text;
    while (text.size() < 100000) {
        text += "Only for those who may; " + std::to_string(text.size()) + "\n";
    }
    set_configured_banner(BANNER_LOGIN, "#" + text + "#");
    notify();
    EXPECT_EQ(content(), text + "\n");
}

TEST_F(banners_test, control_characters_and_utf8_reach_the_file_but_no_configuration_line) {
    const std::string text = "a\nPermitRootLogin yes\nb\x1b\x01 \xc3\xa9";
    set_configured_banner(BANNER_LOGIN, "#" + text + "#");
    notify();
    EXPECT_EQ(content(), text + "\n");
    EXPECT_THAT(file_lines(paths::server_file), Not(Contains("b\x1b\x01 \xc3\xa9")));
}

TEST_F(banners_test, the_servers_are_restarted_when_a_banner_is_added_or_removed) {
    scratch_root::add_namespace_file("vrf-red");
    commit_ok(fake_platform::set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/red", "%d%S%S", {{}, {}, {}}));
    stub_commands::clear_log();
    const std::vector<std::string> restart = {"systemctl restart sshd_service_red"};
    set_configured_banner(BANNER_LOGIN, "#one#");
    notify();
    EXPECT_EQ(stub_commands::log(), restart);
    EXPECT_EQ(value("/var/opt/norvo/norvossh/sshd_config_red", "Banner"), banner_line);
    stub_commands::clear_log();
    // A server reads the file for every connection.
    set_configured_banner(BANNER_LOGIN, "#two#");
    notify();
    EXPECT_THAT(stub_commands::log(), IsEmpty());
    set_configured_banner(BANNER_LOGIN, std::nullopt);
    notify(4);
    EXPECT_EQ(stub_commands::log(), restart);
    EXPECT_EQ(value("/var/opt/norvo/norvossh/sshd_config_red", "Banner"), "no line");
}

TEST_F(banners_test, a_server_file_that_cannot_be_edited_is_logged) {
    set_configured_banner(BANNER_LOGIN, "#one#");
    call_faults::fail_call("rename", EACCES);
    notify();
    EXPECT_TRUE(
        fake_platform::logged("ERR_ERRNO", "Error:=Permission denied(0xd), Config file write for banner failed"));
    EXPECT_EQ(content(), "one\n");
}

TEST_F(banners_test, a_banner_file_that_cannot_be_written_is_only_printed_in_debug) {
    set_platform_banner(BANNER_MESSAGE_OF_THE_DAY, "a");
    set_platform_banner(BANNER_LOGIN, "b");
    set_configured_banner(BANNER_MESSAGE_OF_THE_DAY, "#c#");
    set_configured_banner(BANNER_LOGIN, "#d#");
    // The second call opens the file for appending.
    call_faults::fail_call("fopen", EACCES, 4, 3, paths::banner_file);
    notify();
    EXPECT_THAT(fake_platform::debug_texts(),
                AllOf(Contains("platform motd banner write failed"), Contains("motd banner write failed"),
                      Contains("platform login banner write failed"), Contains("login banner write failed"),
                      Contains("Error:=Permission denied(0xd), file open failed")));
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
    EXPECT_EQ(line(), banner_line);
    bool traced = false;
    for (const auto& entry : fake_platform::trace_lines_of("ssh/cfg-agent/error")) {
        traced = traced || entry.arguments == std::vector<std::string>{banner_line, "a", "13"};
    }
    EXPECT_TRUE(traced);
}

TEST_F(banners_test, a_full_disk_is_a_failed_write) {
    set_configured_banner(BANNER_LOGIN, "#d#");
    call_faults::fail_call("fclose", ENOSPC, 1, 2, paths::banner_file);
    notify();
    EXPECT_TRUE(fake_platform::debugged("login banner write failed"));
}

TEST_F(banners_test, an_old_file_that_cannot_be_deleted_is_emptied) {
    write_file(paths::banner_file, "old\n");
    set_configured_banner(BANNER_LOGIN, "#new#");
    call_faults::fail_call("remove", EACCES, call_faults::always, 1, paths::banner_file);
    notify();
    EXPECT_EQ(content(), "new\n");
}

TEST_F(banners_test, a_file_that_cannot_be_created_ends_the_process) {
    call_faults::fail_call("fopen", EROFS, call_faults::always, 1, paths::banner_file);
    EXPECT_EXIT(notify(), testing::ExitedWithCode(256 - 25), "");
    EXPECT_EQ(EXIT_BANNER_FILE, -25);
}

TEST_F(banners_test, a_missing_directory_is_created) {
    remove_path(paths::configuration_directory);
    set_configured_banner(BANNER_LOGIN, "#Hello#");
    notify();
    EXPECT_EQ(content(), "Hello\n");
}

TEST_F(banners_test, after_a_kill_at_any_call_the_next_notice_completes_the_file) {
    set_configured_banner(BANNER_LOGIN, "#Hello#");
    const uint32_t kill_points =
        call_faults::for_each_kill_point([] { remove_path(paths::banner_file); }, [] { notify(); },
                                         [] {
                                             notify();
                                             EXPECT_EQ(content(), "Hello\n");
                                             EXPECT_EQ(line(), banner_line);
                                         });
    EXPECT_GT(kill_points, 4u);
}

TEST_F(banners_test, a_missing_text_is_not_written) {
    EXPECT_EQ(writeToBanner(nullptr), -1);
    EXPECT_EQ(writeToBanner(""), -1);
    EXPECT_EQ(writeToAaaBanner(nullptr), -1);
    EXPECT_TRUE(fake_platform::debugged("string is empty"));
    EXPECT_FALSE(path_exists(paths::banner_file));
    EXPECT_FALSE(path_exists(motd));
}

TEST_F(banners_test, texts_are_appended) {
    EXPECT_EQ(writeToBanner("one"), 0);
    EXPECT_EQ(writeToBanner("two\n"), 0);
    EXPECT_EQ(content(), "one\ntwo\n\n");
}

// --- The message of the day ------------------------------------------------------------------------------------------

TEST_F(banners_test, the_message_of_the_day_follows_the_aaa_banner) {
    write_file(motd, "the distribution's\n");
    set_aaa_banner("#Welcome#");
    notify_aaa();
    EXPECT_EQ(read_file(motd), "Welcome\n");
    EXPECT_THAT(fake_platform::debug_texts(), AllOf(Contains("aaa banner config notified"), Contains("Welcome"),
                                                    Contains("aaa banner file created")));
    set_aaa_banner("#Other#rest");
    notify_aaa(2);
    EXPECT_EQ(read_file(motd), "Other\n");
}

TEST_F(banners_test, removing_the_aaa_banner_removes_the_message_of_the_day) {
    set_aaa_banner("#Welcome#");
    notify_aaa();
    notify_aaa(4);
    EXPECT_FALSE(path_exists(motd));
    EXPECT_EQ(fake_platform::count_calls("banner_service_aaa"), 1u);
}

TEST_F(banners_test, without_an_aaa_banner_there_is_no_message_of_the_day) {
    for (const auto& text : {std::optional<std::string>(), std::optional<std::string>(""),
                             std::optional<std::string>("##"), std::optional<std::string>("#")}) {
        write_file(motd, "old\n");
        set_aaa_banner(text);
        notify_aaa();
        EXPECT_FALSE(path_exists(motd));
    }
}

// The directory's name is relative, so it depends on the working directory.
TEST_F(banners_test, a_directory_etc_is_created_in_the_working_directory) {
    std::filesystem::create_directory("/tmp/elsewhere");
    ASSERT_EQ(chdir("/tmp/elsewhere"), 0);
    set_aaa_banner("#Welcome#");
    notify_aaa();
    EXPECT_EQ(read_file(motd), "Welcome\n");
    EXPECT_THAT(directory_names("/tmp/elsewhere"), ElementsAre("etc"));
    EXPECT_THAT(directory_names("/tmp/elsewhere/etc"), IsEmpty());
}

TEST_F(banners_test, a_message_of_the_day_that_cannot_be_created_ends_the_process) {
    set_aaa_banner("#Welcome#");
    call_faults::fail_call("fopen", EROFS, call_faults::always, 1, motd);
    EXPECT_EXIT(notify_aaa(), testing::ExitedWithCode(256 - 30), "");
    EXPECT_EQ(EXIT_AAA_BANNER_FILE, -30);
}

TEST_F(banners_test, a_message_of_the_day_that_cannot_be_written_is_only_printed_in_debug) {
    set_aaa_banner("#Welcome#");
    call_faults::fail_call("fopen", EACCES, 1, 3, motd);
    notify_aaa();
    EXPECT_TRUE(fake_platform::debugged("Error:=Permission denied(0xd), aaa banner file open failed"));
    EXPECT_TRUE(fake_platform::debugged("aaa banner write to filefailed"));
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}

TEST_F(banners_test, banner_notices_leave_the_message_of_the_day_alone) {
    write_file(motd, "kept\n");
    set_configured_banner(BANNER_MESSAGE_OF_THE_DAY, "#motd#");
    notify(3, "0x2");
    EXPECT_EQ(read_file(motd), "kept\n");
    EXPECT_EQ(content(), "motd\n");
}

}  // namespace
