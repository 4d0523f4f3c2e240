#include "openssh/algorithm_query.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "scratch.h"

using namespace openssh;
using openssh_test::fixed_algorithms;
using openssh_test::scratch_directory;
using openssh_test::text_of;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr const char* talking_ssh =
    "echo \"$@\" >>$(dirname $0)/asked\n"
    "case $2 in cipher) printf 'c1\\nc2\\n';; mac) echo m1;; kex) echo k1;; HostKeyAlgorithms) echo h1;; esac\n";

}  // namespace

TEST(launcher_algorithm_query, queries_once_and_caches_the_result) {
    const scratch_directory scratch;
    const std::string ssh = scratch.write_program("ssh", talking_ssh);
    known_algorithms known;
    EXPECT_EQ(query_algorithms(ssh, scratch.file("cache"), known), "");
    EXPECT_THAT(known.names,
                ElementsAre(ElementsAre("c1", "c2"), ElementsAre("m1"), ElementsAre("k1"), ElementsAre("h1")));
    const std::string asked = text_of(scratch.file("asked"));
    EXPECT_EQ(std::count(asked.begin(), asked.end(), '\n'), 4);

    known_algorithms again;
    EXPECT_EQ(query_algorithms(ssh, scratch.file("cache"), again), "");
    EXPECT_EQ(again.names, known.names);
    EXPECT_EQ(text_of(scratch.file("asked")), asked);
}

TEST(launcher_algorithm_query, simultaneous_starts_share_one_answer) {
    const scratch_directory scratch;
    const std::string ssh = scratch.write_program("ssh", std::string("sleep 0.2\n") + talking_ssh);
    std::vector<std::thread> starts;
    for (int server = 0; server < 8; server++) {
        starts.emplace_back([&] {
            known_algorithms known;
            EXPECT_EQ(query_algorithms(ssh, scratch.file("cache"), known), "");
            EXPECT_THAT(known.names[0], ElementsAre("c1", "c2"));
        });
    }
    for (std::thread& each : starts) {
        each.join();
    }
    const std::string asked = text_of(scratch.file("asked"));
    EXPECT_EQ(std::count(asked.begin(), asked.end(), '\n'), 4);
}

TEST(launcher_algorithm_query, queries_again_when_ssh_has_changed) {
    const scratch_directory scratch;
    const std::string ssh = scratch.write_program("ssh", talking_ssh);
    known_algorithms known;
    ASSERT_EQ(query_algorithms(ssh, scratch.file("cache"), known), "");
    scratch.write_program("ssh", "echo other\n");
    ASSERT_EQ(query_algorithms(ssh, scratch.file("cache"), known), "");
    EXPECT_THAT(known.names[0], ElementsAre("other"));
}

TEST(launcher_algorithm_query, queries_again_when_the_cache_is_damaged) {
    const scratch_directory scratch;
    const std::string ssh = scratch.write_program("ssh", talking_ssh);
    known_algorithms known;
    ASSERT_EQ(query_algorithms(ssh, scratch.file("cache"), known), "");
    const std::string whole = text_of(scratch.file("cache"));
    scratch.write("cache", whole.substr(0, whole.size() / 2));
    known.names = {};
    EXPECT_EQ(query_algorithms(ssh, scratch.file("cache"), known), "");
    EXPECT_THAT(known.names[0], ElementsAre("c1", "c2"));
    EXPECT_EQ(text_of(scratch.file("cache")), whole);
}

TEST(launcher_algorithm_query, a_cache_round_trips_and_every_truncated_one_is_refused) {
    const std::string text = format_algorithm_cache("ssh 1", fixed_algorithms());
    known_algorithms known;
    ASSERT_TRUE(parse_algorithm_cache(text, "ssh 1", known));
    EXPECT_EQ(known.names, fixed_algorithms().names);
    EXPECT_FALSE(parse_algorithm_cache(text, "ssh 2", known));
    for (size_t length = 0; length < text.size() - 1; ++length) {
        EXPECT_FALSE(parse_algorithm_cache(text.substr(0, length), "ssh 1", known)) << length;
    }
    EXPECT_EQ(known.names, fixed_algorithms().names);
}

TEST(launcher_algorithm_query, continues_without_a_cache_that_cannot_be_written) {
    const scratch_directory scratch;
    known_algorithms known;
    EXPECT_EQ(query_algorithms(scratch.write_program("ssh", talking_ssh), scratch.file("none/cache"), known), "");
    EXPECT_THAT(known.names[3], ElementsAre("h1"));
}

TEST(launcher_algorithm_query, reports_why_ssh_gave_no_answer) {
    const scratch_directory scratch;
    known_algorithms known = fixed_algorithms();
    EXPECT_THAT(query_algorithms(scratch.file("none"), scratch.file("cache"), known),
                HasSubstr("No such file or directory"));
    const std::string broken = scratch.write_program("broken", "echo 'no library' >&2; exit 127\n");
    EXPECT_EQ(query_algorithms(broken, scratch.file("cache"), known),
              broken + " -Q cipher lists no algorithms: exit status 127 no library");
    EXPECT_THAT(query_algorithms(scratch.write_program("silent", "exit 0\n"), scratch.file("cache"), known),
                HasSubstr("-Q cipher lists no algorithms"));
    EXPECT_EQ(known.names, fixed_algorithms().names);
    EXPECT_FALSE(openssh_test::exists(scratch.file("cache")));
}

TEST(launcher_algorithm_query, the_installed_ssh_answers) {
    const known_algorithms known = openssh_test::installed_algorithms();
    EXPECT_THAT(known.names[0], Contains("aes256-ctr"));
    EXPECT_THAT(known.names[1], Contains("hmac-sha2-512"));
    EXPECT_THAT(known.names[2], Contains("curve25519-sha256"));
    EXPECT_THAT(known.names[3], Contains("rsa-sha2-512"));
}
