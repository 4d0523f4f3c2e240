#include "platform/banner_service.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "linux/host/banner_service_internal.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/platform_test_support.h"

namespace {

using platform_test::write_file;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char motd_item[] = "/cfg/gl/banner/0x2";
constexpr char login_item[] = "/cfg/gl/banner/0x3";
constexpr char aaa_item[] = "/cfg/gl/aaa/banner/0x0";

/// A banner and where it ends.
std::string taken(char* banner) {
    const std::string text = banner == nullptr ? "none" : banner;
    free(banner);
    return text;
}

class banner_service_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        datastore_binding* banners = bind("/cfg/gl/banner/");
        datastore_binding* aaa_banners = bind("/cfg/gl/aaa/banner/");
        for (const auto& [binding, item] : {std::pair(banners, "0x2"), {banners, "0x3"}, {aaa_banners, "0x0"}}) {
            ASSERT_EQ(datastore_register_notification(binding, item, 7, note, nullptr, this), PLATFORM_OK);
        }
    }

    /// Reads what the agent's handlers would read.
    static void note(const datastore_notification* notification, void* context) {
        auto* self = static_cast<banner_service_test*>(context);
        self->notices.push_back(std::to_string(notification->event) + ' ' + notification->item + ' ' +
                                taken(banner_service_configured(BANNER_LOGIN)) + ' ' +
                                taken(banner_service_configured(BANNER_MESSAGE_OF_THE_DAY)) + ' ' +
                                taken(banner_service_aaa()));
    }

    static std::string set(const char* item, const std::string& text) {
        return datastore_test::set(item, text).message;
    }

    std::vector<std::string> notices;
};

TEST_F(banner_service_test, returns_the_configured_banners_with_their_delimiters) {
    EXPECT_EQ(set(motd_item, "#Hello#"), "");
    EXPECT_EQ(set(login_item, "%Stop\tor\nnot%"), "");
    EXPECT_EQ(set(aaa_item, "##"), "");
    EXPECT_EQ(taken(banner_service_configured(BANNER_MESSAGE_OF_THE_DAY)), "#Hello#");
    EXPECT_EQ(taken(banner_service_configured(BANNER_LOGIN)), "%Stop\tor\nnot%");
    EXPECT_EQ(taken(banner_service_aaa()), "##");
    EXPECT_EQ(taken(banner_service_configured(4)), "none");
}

TEST_F(banner_service_test, returns_nothing_for_a_banner_that_is_not_configured) {
    EXPECT_EQ(taken(banner_service_configured(BANNER_LOGIN)), "none");
    EXPECT_EQ(taken(banner_service_aaa()), "none");
    EXPECT_EQ(taken(banner_service_platform(BANNER_LOGIN)), "none");
    EXPECT_EQ(taken(banner_service_platform(4)), "none");
    datastore_close();
    EXPECT_EQ(taken(banner_service_configured(BANNER_LOGIN)), "none");
}

TEST_F(banner_service_test, expands_tokens_and_keeps_the_delimiters) {
    ASSERT_EQ(0, sethostname("edge-1", 6));
    EXPECT_EQ(set(login_item, "-This is $(hostname), $(nobody knows)-"), "");
    EXPECT_EQ(taken(banner_service_configured(BANNER_LOGIN)), "-This is edge-1, $(nobody knows)-");
    EXPECT_EQ(set(login_item, "$(hostname)$"), "");
    EXPECT_EQ(taken(banner_service_configured(BANNER_LOGIN)), "$(hostname)$");
    EXPECT_EQ(set(login_item, ")x$(hostname)"), "");
    EXPECT_EQ(taken(banner_service_configured(BANNER_LOGIN)), ")x$(hostname)");
}

TEST_F(banner_service_test, notifies_handlers_when_the_new_text_can_be_read) {
    EXPECT_EQ(set(login_item, "#one#"), "");
    EXPECT_EQ(set(login_item, "#two#"), "");
    EXPECT_EQ(set(aaa_item, "#aaa#"), "");
    EXPECT_EQ(set(aaa_item, "#aaa#"), "");
    EXPECT_EQ(datastore_test::erase(login_item).status, PLATFORM_OK);
    EXPECT_THAT(notices, ElementsAre("3 0x3 #one# none none", "2 0x3 #two# none none", "3 0x0 #two# none #aaa#",
                                     "4 0x3 none none #aaa#"));
}

TEST_F(banner_service_test, refuses_an_invalid_banner_and_describes_a_valid_one) {
    for (const char* text : {"Hello", "noon", "#Hello", "Hello#", "#Hello%", " Hello ", "ééé"}) {
        EXPECT_THAT(set(login_item, text),
                    HasSubstr("is not enclosed in matching delimiters; expected a UTF-8 string of 2 to 8192"))
            << text;
    }
    for (const char* text : {"#a\rb#", "#a\x1b[2Jb#", "#a\x7f#", "#a\xc2\x85#", "#\xff#", "#a\x01#", "#a\u202e#",
                             "#a\u200b#", "#a\u2066#", "#\ufeff#", "#\u061c#"}) {
        EXPECT_THAT(set(login_item, text), HasSubstr("contains a character that is not allowed")) << text;
        EXPECT_THAT(set(login_item, text), HasSubstr("without control characters other than newline and tab")) << text;
    }
    EXPECT_THAT(set(login_item, "#"), HasSubstr("is too short"));
    EXPECT_THAT(set(login_item, '#' + std::string(100000, 'x') + '#'),
                HasSubstr("is too long; expected a UTF-8 string of 2"));
    EXPECT_EQ(datastore_test::stored(login_item), "none");
    EXPECT_THAT(notices, IsEmpty());
}

TEST_F(banner_service_test, accepts_utf8_and_delimiters_within_the_text) {
    EXPECT_EQ(set(login_item, "#Zutritt nur für Befugte – 立入禁止#"), "");
    EXPECT_EQ(taken(banner_service_configured(BANNER_LOGIN)), "#Zutritt nur für Befugte – 立入禁止#");
    EXPECT_EQ(set(login_item, "#a#b#"), "");
    EXPECT_EQ(taken(banner_service_configured(BANNER_LOGIN)), "#a#b#");
    const std::string largest = '#' + std::string(8190, 'x') + '#';
    EXPECT_EQ(set(login_item, largest), "");
    EXPECT_EQ(taken(banner_service_configured(BANNER_LOGIN)), largest);
}

TEST_F(banner_service_test, is_dumped_in_a_form_that_can_be_loaded_again) {
    EXPECT_EQ(set(login_item, "#one\n\ttwo \"three\" \\ $(hostname) ü#"), "");
    EXPECT_EQ(set(aaa_item, "%aaa%"), "");
    const control_json dumped = ask(R"({"call":"dump"})")["data"];
    EXPECT_EQ(result(R"({"call":"delete","path":"/cfg/gl/"})"), "done");
    control_json load = {{"call", "load"}, {"items", dumped}};
    EXPECT_EQ(result(control_json_text(load)), "done");
    EXPECT_EQ(ask(R"({"call":"dump"})")["data"], dumped);
    EXPECT_EQ(dumped[login_item], "#one\n\ttwo \"three\" \\ $(hostname) ü#");
}

TEST_F(banner_service_test, reads_the_platforms_own_banners_unaltered) {
    write_file(banner_platform_login_file, "#Property of\n$(domain)#\n");
    write_file(banner_platform_motd_file, "No newline");
    EXPECT_EQ(taken(banner_service_platform(BANNER_LOGIN)), "#Property of\n$(domain)#");
    EXPECT_EQ(taken(banner_service_platform(BANNER_MESSAGE_OF_THE_DAY)), "No newline");
    write_file(banner_platform_motd_file, "\n");
    EXPECT_EQ(taken(banner_service_platform(BANNER_MESSAGE_OF_THE_DAY)), "none");
}

TEST_F(banner_service_test, ignores_an_invalid_platform_banner) {
    platform_test::journal_listener journal;
    const auto complaint = [&] {
        EXPECT_EQ(taken(banner_service_platform(BANNER_LOGIN)), "none");
        return journal.messages();
    };
    write_file(banner_platform_login_file, std::string(8193, 'x'));
    EXPECT_THAT(complaint(), HasSubstr("File too large"));
    write_file(banner_platform_login_file, std::string("a\0b", 3));
    EXPECT_THAT(complaint(), HasSubstr("Failed to read the platform's banner"));
    std::filesystem::remove(banner_platform_login_file);
    EXPECT_EQ(complaint(), "");
    std::filesystem::create_directory(banner_platform_login_file);
    EXPECT_THAT(complaint(), HasSubstr("Is a directory"));
    std::filesystem::remove(banner_platform_login_file);
    EXPECT_EQ(0, mkfifo(banner_platform_login_file, 0600));
    EXPECT_THAT(complaint(), HasSubstr("Invalid argument"));
}

}  // namespace
