#include "user_keys/key_record.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(key_record, round_trips) {
    const key_record record = {key_origin::exec_mode, 2048, 1700000000, std::string("\0der\xff", 5)};
    key_record read;
    ASSERT_EQ(key_record_decode(key_record_encode(record), read), PLATFORM_OK);
    EXPECT_EQ(read.origin, record.origin);
    EXPECT_EQ(read.bits, record.bits);
    EXPECT_EQ(read.time, record.time);
    EXPECT_EQ(read.der, record.der);
}

TEST(key_record, is_refused_if_it_is_malformed) {
    const std::string bytes = key_record_encode({key_origin::configuration, 2048, 1, "d"});
    key_record record;
    record.bits = 7;
    for (size_t size = 0; size < bytes.size(); size++) {
        EXPECT_EQ(key_record_decode(bytes.substr(0, size), record), platform_status{EBADMSG}) << size;
    }
    std::string later_version = bytes;
    later_version[0] = 2;
    std::string unknown_origin = bytes;
    unknown_origin[1] = 2;
    EXPECT_EQ(key_record_decode(later_version, record), platform_status{EBADMSG});
    EXPECT_EQ(key_record_decode(unknown_origin, record), platform_status{EBADMSG});
    EXPECT_EQ(record.bits, 7u);
}

TEST(key_record, is_stored_next_to_the_configuration_and_names_its_item) {
    EXPECT_EQ(key_record_place("alice"), "user_key/alice");
    EXPECT_EQ(key_record_item("alice"), "/cfg/gl/crypto/ssh/server/cmn/username/alice/keystr");
}

TEST(key_record, is_only_for_safe_names) {
    for (const char* name : {"a", "alice", "a.b-c_d", "0", "_x"}) {
        EXPECT_TRUE(key_user_is_valid(name)) << name;
    }
    EXPECT_TRUE(key_user_is_valid(std::string(64, 'x')));
    for (const char* name : {"", "-a", ".", "..", "a/b", "a b", "a%", "a\n", "ä", "a;b", "a'b", "a\\b", "a@b"}) {
        EXPECT_FALSE(key_user_is_valid(name)) << name;
    }
    EXPECT_FALSE(key_user_is_valid(std::string(65, 'x')));
    EXPECT_FALSE(key_user_is_valid(std::string_view("a\0b", 3)));
}

}  // namespace
