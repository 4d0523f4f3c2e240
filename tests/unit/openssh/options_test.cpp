#include "openssh/options.h"

#include <gtest/gtest.h>

#include <vector>

using namespace openssh;

namespace {

std::string parse(std::vector<std::string> words, launch_options& options) {
    words.insert(words.begin(), "sshd");
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    return parse_options(static_cast<int>(words.size()), arguments.data(), options);
}

std::string complaint(std::vector<std::string> words) {
    launch_options options;
    return parse(std::move(words), options);
}

}  // namespace

TEST(launcher_options, accepts_the_file_and_the_identifier) {
    launch_options options;
    EXPECT_EQ(parse({"-f", "/a/sshd_config_red", "-v", "4294967295"}, options), "");
    EXPECT_EQ(options.file, "/a/sshd_config_red");
    EXPECT_EQ(options.vrf_id, 4294967295U);
    EXPECT_FALSE(options.print_only);
}

TEST(launcher_options, accepts_a_test_without_an_identifier) {
    launch_options options;
    EXPECT_EQ(parse({"-t", "-f", "/a"}, options), "");
    EXPECT_TRUE(options.print_only);
}

TEST(launcher_options, accepts_the_namespace_of_a_server_that_has_ended) {
    launch_options options;
    EXPECT_EQ(parse({"-e", "vrf-red"}, options), "");
    EXPECT_EQ(options.ended_namespace, "vrf-red");
    EXPECT_EQ(complaint({"-e", "vrf-red", "-f", "/a", "-v", "1"}), "option -e is used alone");
    EXPECT_EQ(complaint({"-t", "-e", "vrf-red"}), "option -e is used alone");
    for (const char* name : {"", "..", "a/b", "/run/netns/a"}) {
        EXPECT_EQ(complaint({"-e", name}), std::string("\"") + name + "\" is not the name of a network namespace");
    }
}

TEST(launcher_options, accepts_the_comparison_of_the_running_servers) {
    launch_options options;
    EXPECT_EQ(parse({"-c"}, options), "");
    EXPECT_TRUE(options.compare);
    EXPECT_EQ(complaint({"-c", "-f", "/a"}), "option -c is used alone");
    EXPECT_EQ(complaint({"-e", "vrf-red", "-c"}), "option -c is used alone");
}

TEST(launcher_options, reports_what_is_missing) {
    EXPECT_EQ(complaint({}), "missing option -f FILE");
    EXPECT_EQ(complaint({"-v", "1"}), "missing option -f FILE");
    EXPECT_EQ(complaint({"-f", "/a"}), "missing option -v ID");
    EXPECT_EQ(complaint({"-f"}), "option -f requires a value");
    EXPECT_EQ(complaint({"-f", "", "-v", "1"}), "missing option -f FILE");
}

TEST(launcher_options, reports_what_is_wrong) {
    EXPECT_EQ(complaint({"-f", "a", "-v", "1"}), "the server file \"a\" is not an absolute path");
    for (const char* id : {"x", "1x", "-1", "", " 1", "4294967296", "0x1"}) {
        EXPECT_EQ(complaint({"-f", "/a", "-v", id}),
                  std::string("the VRF identifier \"") + id + "\" is not a number from 0 to 4294967295");
    }
    EXPECT_EQ(complaint({"-D", "-f", "/a"}), "unknown option -D");
    EXPECT_EQ(complaint({"-f", "/a", "-v", "1", "more"}), "unexpected argument \"more\"");
}
