#include "user_keys/key_record.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "key_samples.h"
#include "user_keys/key_der.h"

namespace {

key_with_time sample(const std::string& options, const std::string& comment, size_t bits, int64_t time) {
    return {{options, key_test::rsa_key(bits), comment}, time};
}

const std::string der = [] {
    std::string bytes;
    key_der_make({key_test::modulus(1024), key_test::usual()}, bytes);
    return bytes;
}();

/// A record as the first version wrote it.
std::string first_version(uint8_t origin, const std::string& key) {
    std::string bytes = {1, static_cast<char>(origin), 0, 0};
    const uint32_t bits = 1024;
    const int64_t time = 1700000000;
    bytes.append(reinterpret_cast<const char*>(&bits), sizeof bits);
    bytes.append(reinterpret_cast<const char*>(&time), sizeof time);
    return bytes + key;
}

TEST(key_record, round_trips) {
    const key_record record = {key_origin::exec_mode,
                               {sample("restrict,command=\"ls\"", "me", 1024, 1700000000), sample("", "", 2048, -1)}};
    key_record read;
    ASSERT_EQ(key_record_decode(key_record_encode(record), read), PLATFORM_OK);
    EXPECT_EQ(read, record);
    EXPECT_EQ(key_record_lines(read), "restrict,command=\"ls\" " + public_key_text(record.keys[0].key) + " me\n" +
                                          public_key_text(record.keys[1].key) + "\n");
}

TEST(key_record, of_the_first_version_is_read) {
    key_record read;
    ASSERT_EQ(key_record_decode(first_version(1, der), read), PLATFORM_OK);
    EXPECT_EQ(read, (key_record{key_origin::exec_mode, {sample("", "", 1024, 1700000000)}}));
    ASSERT_EQ(key_record_decode(first_version(0, der), read), PLATFORM_OK);
    EXPECT_EQ(read.origin, key_origin::configuration);
    const std::string bytes = first_version(1, der);
    for (size_t size = 0; size < bytes.size(); size++) {
        EXPECT_EQ(key_record_decode(bytes.substr(0, size), read), platform_status{EBADMSG}) << size;
    }
    EXPECT_EQ(key_record_decode(first_version(2, der), read), platform_status{EBADMSG});
    EXPECT_EQ(key_record_decode(first_version(1, "der"), read), platform_status{EBADMSG});
    EXPECT_EQ(read.keys.size(), 1u);
}

TEST(key_record, is_refused_if_it_is_malformed) {
    const key_record written = {key_origin::configuration, {sample("a", "b", 1024, 1), sample("", "", 2048, 2)}};
    const std::string bytes = key_record_encode(written);
    const size_t first_key = key_record_encode({key_origin::configuration, {written.keys[0]}}).size();
    key_record record;
    for (size_t size = 0; size < bytes.size(); size++) {
        const auto expected = static_cast<platform_status>(size == first_key ? 0 : EBADMSG);
        EXPECT_EQ(key_record_decode(bytes.substr(0, size), record), expected) << size;
    }
    record.keys.clear();
    std::string later_version = bytes;
    later_version[0] = 3;
    std::string unknown_origin = bytes;
    unknown_origin[1] = 2;
    std::string damaged = bytes;
    damaged[bytes.find("ssh-rsa")] = 'x';
    key_record redundant = written;
    redundant.keys[0].key.blob = key_test::field("ssh-rsa") + key_test::field('\0' + key_test::usual()) +
                                 key_test::number(key_test::modulus(1024));
    for (const std::string& wrong :
         {later_version, unknown_origin, damaged, bytes + 'x', key_record_encode(redundant)}) {
        EXPECT_EQ(key_record_decode(wrong, record), platform_status{EBADMSG});
    }
    EXPECT_TRUE(record.keys.empty());
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
