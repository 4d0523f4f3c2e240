#include "linux/datastore/schema_nearest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string nearest_pattern(std::string_view path) {
    std::string pattern = schema_nearest(path).pattern;
    return pattern.substr(std::string_view("/cfg/gl/").size());
}

TEST(schema_nearest, a_typing_error_is_corrected) {
    EXPECT_EQ(nearest_pattern("/cfg/gl/crypto/ssh/server/cmn/timeoutt"), "crypto/ssh/server/cmn/timeout");
    EXPECT_EQ(nearest_pattern("/cfg/gl/crypto/ssh/client/dcsp"), "crypto/ssh/client/dscp");
    EXPECT_EQ(nearest_pattern("timeot"), "crypto/ssh/server/cmn/timeout");
    EXPECT_EQ(nearest_pattern("client/rekey_tme"), "crypto/ssh/client/rekey_time");
    EXPECT_EQ(nearest_pattern("fipsmod/value"), "crypto/fipsmode/value");
}

TEST(schema_nearest, a_word_of_the_description_is_found) {
    EXPECT_EQ(nearest_pattern("login_grace"), "crypto/ssh/server/cmn/timeout");
    EXPECT_EQ(nearest_pattern("/cfg/gl/crypto/ssh/server/cmn/login_grace_time"), "crypto/ssh/server/cmn/timeout");
    EXPECT_EQ(nearest_pattern("concurrent-sessions"), "crypto/ssh/server/cmn/session_limit");
    EXPECT_EQ(nearest_pattern("server/authority"), "crypto/ssh/server/cmn/trustpoint/user/*");
    EXPECT_EQ(nearest_pattern("max-login-attempts"), "crypto/ssh/server/cmn/max_auth_limit");
    EXPECT_EQ(nearest_pattern("fips"), "crypto/fipsmode/value");
}

TEST(schema_nearest, words_at_another_place_are_found) {
    EXPECT_EQ(nearest_pattern("/cfg/gl/crypto/ssh/server/timeout"), "crypto/ssh/server/cmn/timeout");
    EXPECT_EQ(nearest_pattern("/cfg/ssh/netconf/vrf/mgmt"), "crypto/ssh/server/sshd/vrf-netconf/*");
    EXPECT_EQ(nearest_pattern("sshd/vrf"), "crypto/ssh/server/sshd/vrf/*");
    EXPECT_EQ(nearest_pattern("client/known_hosts"), "crypto/ssh/client/host_pubkey");
}

TEST(schema_nearest, any_text_has_a_nearest_item) {
    for (const std::string& path : {std::string(), std::string("/"), std::string("///"), std::string("\xff\xff"),
                                    std::string(100000, 'x'), std::string(100000, '/'), std::string("x y z q 0")}) {
        EXPECT_NE(schema_nearest(path).pattern, nullptr);
    }
}

std::vector<std::string> found_patterns(std::string_view text) {
    std::vector<std::string> found;
    for (const schema_row* row : schema_search(text)) {
        found.emplace_back(row->pattern);
    }
    return found;
}

TEST(schema_search, finds_rows_with_all_words) {
    EXPECT_THAT(found_patterns("grace"), ElementsAre("/cfg/gl/crypto/ssh/server/cmn/timeout"));
    EXPECT_THAT(found_patterns("Rekey client"),
                ElementsAre("/cfg/gl/crypto/ssh/client/rekey_time", "/cfg/gl/crypto/ssh/client/rekey_volume"));
    EXPECT_THAT(found_patterns("ed25519"), ElementsAre("/cfg/gl/crypto/ssh/server/cmn/algorithms/host-key"));
    EXPECT_THAT(found_patterns("rekey banner"), IsEmpty());
    EXPECT_THAT(found_patterns(""), IsEmpty());
    EXPECT_THAT(found_patterns("a / b"), IsEmpty());
}

}  // namespace
