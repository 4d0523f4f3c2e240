#include <gtest/gtest.h>

#include "linux/datastore/schema.h"

namespace {

std::string refusal_of(const std::string& path) {
    std::string refusal;
    EXPECT_EQ(schema_find(path, &refusal), nullptr) << path;
    return refusal;
}

std::string vrf(const std::string& name) {
    return "/cfg/gl/crypto/ssh/server/sshd/vrf/" + name;
}

TEST(schema_find, finds_an_item_by_its_path) {
    const schema_row* row = schema_find("/cfg/gl/crypto/ssh/server/cmn/timeout", nullptr);
    ASSERT_NE(row, nullptr);
    EXPECT_STREQ(row->pattern, "/cfg/gl/crypto/ssh/server/cmn/timeout");
    EXPECT_EQ(row->form.kind, schema_kind::number);
}

TEST(schema_find, a_name_matches_the_wildcard) {
    const schema_row* row = schema_find(vrf("Blue_1.a-b"), nullptr);
    ASSERT_NE(row, nullptr);
    EXPECT_STREQ(row->pattern, "/cfg/gl/crypto/ssh/server/sshd/vrf/*");
    EXPECT_NE(schema_find(vrf(std::string(32, 'v')), nullptr), nullptr);
}

TEST(schema_find, a_refusal_names_the_path_the_name_and_what_is_allowed) {
    EXPECT_EQ(refusal_of(vrf("a b")),
              "/cfg/gl/crypto/ssh/server/sshd/vrf/a b: \"a b\" is not allowed in this path; expected 1 to 32 letters, "
              "digits, '_', '-' or '.', not beginning with '-' or '.' (VRF name)");
}

TEST(schema_find, refuses_vrf_names_with_a_meaning_for_a_shell_or_a_file_system) {
    for (const char* name : {"a b", "a'b", "a\"b", "a;b", "$(touch x)", "`id`", "-a", ".", "..", ".a", "a\nb", "a\\b",
                             "a*", "\xc3\xa4", "\xff", "a|b", "a&b", "a>b", "a:b"}) {
        EXPECT_NE(refusal_of(vrf(name)).find("VRF name"), std::string::npos) << name;
    }
    EXPECT_NE(refusal_of(vrf(std::string(33, 'v'))).find("1 to 32 letters"), std::string::npos);
    EXPECT_NE(refusal_of(vrf(std::string("a\0b", 3))).find("VRF name"), std::string::npos);
}

TEST(schema_find, for_a_name_with_a_slash_names_the_nearest_item) {
    EXPECT_EQ(refusal_of(vrf("a/b")),
              "/cfg/gl/crypto/ssh/server/sshd/vrf/a/b: no such item; the closest match is "
              "/cfg/gl/crypto/ssh/server/sshd/vrf/*, where * is 1 to 32 letters, digits, '_', '-' or '.', not "
              "beginning with '-' or '.' (VRF name)");
    EXPECT_NE(refusal_of(vrf("")).find("VRF name"), std::string::npos);
}

TEST(schema_find, names_the_nearest_item) {
    EXPECT_EQ(refusal_of("/cfg/gl/crypto/ssh/server/cmn/timeoutt"),
              "/cfg/gl/crypto/ssh/server/cmn/timeoutt: no such item; the closest match is "
              "/cfg/gl/crypto/ssh/server/cmn/timeout");
    EXPECT_NE(refusal_of("/cfg/gl/crypto/ssh/server/timeout").find("server/cmn/timeout"), std::string::npos);
    EXPECT_NE(refusal_of("/cfg/gl/crypto/ssh/client/dcsp").find("client/dscp"), std::string::npos);
}

TEST(schema_find, refuses_what_is_not_the_path_of_an_item) {
    for (const char* path : {"", "/", "//", "cfg", "/cfg/gl/crypto/ssh/server/", "/cfg/gl/crypto/ssh/server/cmn",
                             "/cfg/gl/crypto/ssh/server/cmn/", "/cfg/gl/crypto/ssh/server/cmn/timeout/",
                             "/cfg/gl/crypto/ssh/server/cmn/timeout/more", "/cfg/gl/crypto//ssh/server/cmn/timeout",
                             "cfg/gl/crypto/ssh/server/cmn/timeout", "/cfg/gl/crypto/ssh/server/sshd/vrf",
                             "/cfg/gl/crypto/ssh/server/cmn/username/ann/keystr/x"}) {
        EXPECT_NE(refusal_of(path), "") << path;
    }
    EXPECT_EQ(refusal_of("timeout"),
              "timeout: not an absolute path; expected an item such as /cfg/gl/crypto/ssh/server/cmn/timeout");
    EXPECT_EQ(refusal_of("timeuot"),
              "timeuot: no such item; the closest match is /cfg/gl/crypto/ssh/server/cmn/timeout");
}

TEST(schema_find, keeps_a_message_short_however_long_the_path) {
    EXPECT_LT(refusal_of("/" + std::string(1000000, 'x')).size(), 600u);
    EXPECT_LT(refusal_of(vrf(std::string(1000000, '\xff'))).size(), 1200u);
    EXPECT_LT(refusal_of(std::string(1000000, '/')).size(), 600u);
}

TEST(schema_find, checks_the_names_of_all_wildcards) {
    EXPECT_NE(schema_find("/cfg/gl/crypto/ssh/server/cmn/username/ann/keystr", nullptr), nullptr);
    EXPECT_NE(refusal_of("/cfg/gl/crypto/ssh/server/cmn/username/-ann/keystr").find("user name"), std::string::npos);
}

TEST(schema_field_index, finds_a_field_by_name) {
    const schema_row* row = schema_find(vrf("blue"), nullptr);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(schema_field_index(*row, "index"), 0);
    EXPECT_EQ(schema_field_index(*row, "ipv6_acl"), 2);
    EXPECT_EQ(schema_field_index(*row, "ipv5_acl"), -1);
}

}  // namespace
