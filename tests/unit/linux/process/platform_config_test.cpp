#include "linux/process/platform_config.h"

#include <sys/stat.h>

#include "linux/process/paths.h"
#include "unit/linux/platform_test_support.h"

using platform_test::write_file;

namespace {

class platform_config_test : public testing::Test {
  protected:
    void TearDown() override { std::filesystem::remove_all(platform_config_file); }

    platform_status read(const std::string& text) {
        write_file(platform_config_file, text);
        return platform_config_read(config, problems);
    }

    platform_config config = {99, 99, true, 99};
    std::vector<std::string> problems;
};

TEST_F(platform_config_test, a_missing_file_gives_the_defaults) {
    EXPECT_EQ(static_cast<platform_status>(ENOENT), platform_config_read(config, problems));
    EXPECT_EQ(static_cast<uint32_t>(PROCESS_ROLE_PRIMARY), config.role);
    EXPECT_EQ(0u, config.node_number);
    EXPECT_FALSE(config.role_is_stated);
    EXPECT_EQ(100u, config.commits_kept);
    EXPECT_TRUE(problems.empty());
}

TEST_F(platform_config_test, the_number_of_commits_kept_has_limits) {
    EXPECT_EQ(0u, read("commits_kept = 10000\n"));
    EXPECT_EQ(10000u, config.commits_kept);
    for (const char* number : {"0", "10001", "all"}) {
        problems.clear();
        EXPECT_EQ(0u, read(std::string("commits_kept = ") + number));
        EXPECT_EQ(100u, config.commits_kept);
        EXPECT_EQ(problems.at(0), std::string("/etc/ssh_cfg_agent/platform.conf, line 1: commits_kept is \"") + number +
                                      "\"; expected a number from 1 to 10000");
    }
}

TEST_F(platform_config_test, spaces_and_comments_are_ignored) {
    EXPECT_EQ(0u, read("# comment\n\n  role=standby\r\n\tnode_number =  4294967294 \n#role = primary"));
    EXPECT_EQ(static_cast<uint32_t>(PROCESS_ROLE_STANDBY), config.role);
    EXPECT_TRUE(config.role_is_stated);
    EXPECT_EQ(4294967294u, config.node_number);
    EXPECT_TRUE(problems.empty());
}

TEST_F(platform_config_test, the_last_of_two_lines_counts) {
    EXPECT_EQ(0u, read("role = standby\nrole = primary\n"));
    EXPECT_EQ(static_cast<uint32_t>(PROCESS_ROLE_PRIMARY), config.role);
    EXPECT_TRUE(config.role_is_stated);
}

TEST_F(platform_config_test, invalid_lines_are_reported_and_leave_the_default) {
    EXPECT_EQ(0u, read("role = Standby\nnode_number = 4294967295\nnode_number = -1\nnode_number = 1 2\n"
                       "node_number =\nrouter\nrol = standby\n= x\n"));
    EXPECT_EQ(static_cast<uint32_t>(PROCESS_ROLE_PRIMARY), config.role);
    EXPECT_FALSE(config.role_is_stated);
    EXPECT_EQ(0u, config.node_number);
    const std::string file = "/etc/ssh_cfg_agent/platform.conf, line ";
    const std::string number = "expected a number from 0 to 4294967294";
    EXPECT_EQ((std::vector<std::string>{
                  file + "1: role is \"Standby\"; expected primary or standby",
                  file + "2: node_number is \"4294967295\"; " + number,
                  file + "3: node_number is \"-1\"; " + number,
                  file + "4: node_number is \"1 2\"; " + number,
                  file + "5: node_number is \"\"; " + number,
                  file + "6: \"router\" is not of the form \"key = value\"",
                  file + "7: \"rol\" is not a known setting",
                  file + "8: \"\" is not a known setting",
              }),
              problems);
}

TEST_F(platform_config_test, unprintable_text_is_escaped) {
    read("role = \x01\xff" + std::string(100, 'x'));
    ASSERT_EQ(1u, problems.size());
    EXPECT_NE(std::string::npos, problems[0].find("\"\\x01\\xff" + std::string(56, 'x') + "...\"")) << problems[0];
}

TEST_F(platform_config_test, a_file_that_is_too_large_is_refused) {
    EXPECT_EQ(static_cast<platform_status>(EFBIG), read("role = standby\n" + std::string(70000, '#')));
    EXPECT_EQ(static_cast<uint32_t>(PROCESS_ROLE_PRIMARY), config.role);
    EXPECT_EQ(std::vector<std::string>{"/etc/ssh_cfg_agent/platform.conf: File too large"}, problems);
}

TEST_F(platform_config_test, only_a_regular_file_is_read) {
    std::filesystem::create_directories(platform_config_directory);
    ASSERT_EQ(0, mkfifo(platform_config_file, 0600));
    EXPECT_EQ(static_cast<platform_status>(EINVAL), platform_config_read(config, problems));
    std::filesystem::remove(platform_config_file);
    std::filesystem::create_directory(platform_config_file);
    EXPECT_EQ(static_cast<platform_status>(EISDIR), platform_config_read(config, problems));
    EXPECT_EQ(2u, problems.size());
}

}  // namespace
