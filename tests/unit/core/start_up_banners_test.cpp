#include <filesystem>

#include "start_up_test.h"

namespace {

using fake_platform::set_tuple;
using fake_platform::store;
using testing::Contains;

using start_up_banners_test = agent_test;

TEST_F(start_up_banners_test, banners_reach_their_handlers) {
    EXPECT_EQ(start_agent(), START_UP_DONE);
    for (const auto& [kind, item] : {std::pair(2u, "0x2"), std::pair(3u, "0x3")}) {
        fake_platform::set_configured_banner(kind, "#Hello#");
        fake_platform::notify(std::string("/cfg/gl/banner/") + item, 3, fake_platform::text_value("#Hello#"));
        EXPECT_EQ(read_file(paths::banner_file), "Hello\n") << item;
        fake_platform::set_configured_banner(kind, std::nullopt);
    }
    fake_platform::set_aaa_banner("#Welcome#");
    fake_platform::notify("/cfg/gl/aaa/banner/0x0", 3, fake_platform::text_value("#Welcome#"));
    EXPECT_EQ(read_file("/etc/motd"), "Welcome\n");
}

// Changes are notified, but a banner that was configured before the start is not.
TEST_F(start_up_banners_test, banners_are_written_before_the_servers_start) {
    store(set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/red", "%d%S%S", {std::nullopt, std::nullopt, std::nullopt}));
    fake_platform::set_configured_banner(3, "#Hello#");
    fake_platform::set_aaa_banner("#Welcome#");
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(read_file(paths::banner_file), "Hello\n");
    EXPECT_EQ(read_file("/etc/motd"), "Welcome\n");
    EXPECT_THAT(file_lines("/var/opt/norvo/norvossh/sshd_config_red"),
                Contains("Banner /var/opt/norvo/norvossh/banner"));
}

// The platform may have banners although none is configured.
TEST_F(start_up_banners_test, either_banner_alone_is_written) {
    for (const uint32_t kind : {2u, 3u}) {
        fake_platform::set_platform_banner(kind, "Stop");
        EXPECT_EQ(start_agent(), START_UP_DONE);
        EXPECT_THAT(file_lines(paths::server_file), Contains("Banner /var/opt/norvo/norvossh/banner")) << kind;
        fake_platform::set_platform_banner(kind, std::nullopt);
        fake_platform::set_configured_banner(kind, "#Hello#");
        EXPECT_EQ(start_agent(), START_UP_DONE);
        EXPECT_EQ(read_file(paths::banner_file), "Hello\n") << kind;
        fake_platform::set_configured_banner(kind, std::nullopt);
    }
}

// Those that were deleted while the agent was away end here. The message of the day is the machine's own.
TEST_F(start_up_banners_test, without_banners_only_the_banner_file_is_emptied) {
    write_file("/etc/motd", "the machine's own\n");
    write_file(paths::banner_file, "old\n");
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(read_file("/etc/motd"), "the machine's own\n");
    EXPECT_EQ(read_file(paths::banner_file), "");
}

// Each has its own exit status, so that the process manager's records distinguish it from a failed start-up.
TEST_F(start_up_banners_test, banner_files_that_cannot_be_created_end_the_process) {
    EXPECT_EQ(start_agent(), START_UP_DONE);
    std::filesystem::create_directories(std::string(paths::banner_file) + "/in_the_way");
    EXPECT_EXIT(fake_platform::notify("/cfg/gl/banner/0x3", 3, fake_platform::text_value("#a#")),
                testing::ExitedWithCode(256 - 25), "");
    std::filesystem::create_directories(std::string(paths::aaa_banner_file) + "/in_the_way");
    fake_platform::set_aaa_banner("#a#");
    EXPECT_EXIT(fake_platform::notify("/cfg/gl/aaa/banner/0x0", 3, fake_platform::text_value("#a#")),
                testing::ExitedWithCode(256 - 30), "");
}

}  // namespace
