#include <errno.h>
#include <gtest/gtest.h>

#include "linux/datastore/schema.h"
#include "platform/datastore_backend.h"

namespace {

constexpr char server[] = "/cfg/gl/crypto/ssh/server/";

std::string refusal_of(const std::string& item, const datastore_value& value) {
    const std::string path = server + item;
    const schema_row* row = schema_find(path, nullptr);
    datastore_stored stored = {99, "untouched"};
    std::string refusal;
    EXPECT_EQ(schema_store(*row, path, value, stored, refusal), platform_status{EINVAL}) << item;
    EXPECT_EQ(stored.bytes, "untouched") << item;
    EXPECT_EQ(refusal.rfind(path + ": ", 0), 0u) << refusal;
    return refusal.substr(std::min(refusal.size(), path.size() + 2));
}

datastore_stored stored_of(const std::string& item, const datastore_value& value) {
    const std::string path = server + item;
    datastore_stored stored;
    std::string refusal;
    EXPECT_EQ(schema_store(*schema_find(path, nullptr), path, value, stored, refusal), PLATFORM_OK) << refusal;
    return stored;
}

datastore_value round_trip(const std::string& item, const datastore_value& value) {
    const datastore_stored stored = stored_of(item, value);
    datastore_value loaded;
    EXPECT_EQ(schema_load(*schema_find(server + item, nullptr), stored, loaded), PLATFORM_OK);
    return loaded;
}

std::string text(const char* value) {
    return value;
}

datastore_fields strings(std::initializer_list<const char*> values) {
    datastore_fields fields;
    for (const char* value : values) {
        if (value == nullptr) {
            fields.emplace_back();
        } else {
            fields.emplace_back(std::string(value));
        }
    }
    return fields;
}

datastore_fields flags(std::initializer_list<bool> values) {
    return {values.begin(), values.end()};
}

TEST(schema_store, stores_numbers_in_the_format_that_handlers_read) {
    const datastore_stored stored = stored_of("cmn/timeout", int64_t{45});
    EXPECT_EQ(stored.kind, uint32_t{DATASTORE_VALUE_NUMBER});
    EXPECT_EQ(stored.bytes, std::string("\x2d\0\0\0", 4));
    EXPECT_EQ(round_trip("cmn/timeout", int64_t{120}), datastore_value(int64_t{120}));
}

TEST(schema_store, names_path_value_and_range) {
    EXPECT_EQ(refusal_of("cmn/timeout", int64_t{500}),
              "500 is out of range; expected a number from 5 to 120 (seconds, login grace time)");
    EXPECT_EQ(refusal_of("cmn/timeout", int64_t{4}),
              "4 is out of range; expected a number from 5 to 120 (seconds, login grace time)");
    EXPECT_EQ(refusal_of("cmn/dscp", int64_t{-1}),
              "-1 is out of range; expected a number from 0 to 63 (DSCP code point)");
    EXPECT_EQ(refusal_of("cmn/dscp", INT64_MAX),
              "9223372036854775807 is out of range; expected a number from 0 to 63 (DSCP code point)");
}

// A number larger by 2 to the power of 32 would wrap around to one that is allowed.
TEST(schema_store, does_not_wrap_around) {
    EXPECT_NE(refusal_of("cmn/timeout", int64_t{45} + (int64_t{1} << 32)).find("out of range"), std::string::npos);
}

TEST(schema_store, refuses_anything_but_a_whole_number) {
    EXPECT_EQ(refusal_of("cmn/dscp", 1.5),
              "1.5 is not a whole number; expected a number from 0 to 63 (DSCP code point)");
    EXPECT_NE(refusal_of("cmn/dscp", 1e300).find("1e+300 is not a whole number"), std::string::npos);
    EXPECT_EQ(refusal_of("cmn/dscp", text("46")),
              "\"46\" is not a number; expected a number from 0 to 63 (DSCP code point)");
    EXPECT_EQ(refusal_of("cmn/dscp", true), "true is not a number; expected a number from 0 to 63 (DSCP code point)");
    EXPECT_EQ(refusal_of("cmn/dscp", flags({true})),
              "[true] is not a number; expected a number from 0 to 63 (DSCP code point)");
}

TEST(schema_store, checks_every_number_against_its_range) {
    struct range {
        const char* item;
        int64_t lowest;
        int64_t highest;
    };
    for (const range& row :
         {range{"cmn/timeout", 5, 120}, range{"cmn/rate_limit", 1, 600}, range{"cmn/session_limit", 1, 100},
          range{"cmn/dscp", 0, 63}, range{"cmn/max_auth_limit", 3, 20}, range{"cmn/rekey_time", 1, 1440},
          range{"cmn/rekey_volume", 1, 4096}, range{"cmn/port_forwarding", 0, 1}, range{"cmn/tcp_window_scale", 1, 14},
          range{"sshd/netconf", 1, 65535}}) {
        EXPECT_EQ(round_trip(row.item, row.lowest), datastore_value(row.lowest));
        EXPECT_EQ(round_trip(row.item, row.highest), datastore_value(row.highest));
        EXPECT_NE(refusal_of(row.item, row.lowest - 1), "");
        EXPECT_NE(refusal_of(row.item, row.highest + 1), "");
    }
}

TEST(schema_store, accepts_flags_as_booleans_or_as_one_and_zero) {
    EXPECT_EQ(round_trip("cmn/disable/hmac/hmac_sha1", true), datastore_value(true));
    EXPECT_EQ(round_trip("cmn/disable/hmac/hmac_sha1", int64_t{0}), datastore_value(false));
    EXPECT_EQ(stored_of("cmn/disable/hmac/hmac_sha1", int64_t{1}).bytes, std::string("\1\0\0\0", 4));
    EXPECT_EQ(refusal_of("cmn/disable/hmac/hmac_sha1", int64_t{2}),
              "2 is neither true nor false; expected true or false (whether this MAC is disabled)");
    EXPECT_EQ(refusal_of("cmn/disable/hmac/hmac_sha1", text("yes")),
              "\"yes\" is neither true nor false; expected true or false (whether this MAC is disabled)");
}

// The agent only checks whether such an item exists, so a stored false would switch it on.
TEST(schema_store, refuses_false_where_only_existence_counts) {
    EXPECT_EQ(round_trip("cmn/logging", true), datastore_value(true));
    EXPECT_EQ(round_trip("sshd/v2", int64_t{1}), datastore_value(true));
    EXPECT_EQ(refusal_of("cmn/logging", false),
              "false is not true; expected true (logins and logouts are logged in detail), or deletion of the item");
}

TEST(schema_store, stores_texts_with_their_nul) {
    const datastore_stored stored = stored_of("cmn/trustpoint/host", text("root-ca"));
    EXPECT_EQ(stored.kind, uint32_t{DATASTORE_VALUE_TEXT});
    EXPECT_EQ(stored.bytes, std::string("root-ca\0", 8));
    EXPECT_EQ(round_trip("cmn/username/ann/keystr", text("ssh-rsa AAAA m\xc3\xbcller")),
              datastore_value(text("ssh-rsa AAAA m\xc3\xbcller")));
}

TEST(schema_store, refuses_texts_with_invalid_length_or_characters) {
    const std::string expected =
        "expected 1 to 127 letters, digits, '_', '-' or '.', not beginning with '-' or '.' (trustpoint name)";
    EXPECT_EQ(refusal_of("cmn/trustpoint/host", text("")), "\"\" is too short; " + expected);
    EXPECT_EQ(refusal_of("cmn/trustpoint/host", std::string(128, 't')),
              "\"" + std::string(80, 't') + "...\" is too long; " + expected);
    EXPECT_EQ(stored_of("cmn/trustpoint/host", std::string(127, 't')).bytes.size(), 128u);
    EXPECT_EQ(refusal_of("cmn/trustpoint/host", text("a\nPermitRootLogin yes")),
              "\"a\\x0aPermitRootLogin yes\" contains a character that is not allowed; " + expected);
    EXPECT_EQ(refusal_of("cmn/trustpoint/host", int64_t{5}), "5 is not a string; " + expected);
    EXPECT_EQ(refusal_of("cmn/trustpoint/host", datastore_fields()), "[] is not a string; " + expected);
}

TEST(schema_store, refuses_control_characters_and_invalid_utf8_in_every_text) {
    for (const char* item : {"cmn/trustpoint/host", "cmn/username/ann/keystr"}) {
        for (const std::string& value : {std::string("a\nb"), std::string("a\0b", 3), std::string("a\rb"),
                                         std::string("\x1b"), std::string("\xff"), std::string("\xc2\x85")}) {
            EXPECT_NE(refusal_of(item, value).find("a character that is not allowed"), std::string::npos);
        }
    }
}

TEST(schema_store, packs_a_tuple_with_its_absent_fields) {
    const datastore_stored stored = stored_of("sshd/vrf/blue", strings({nullptr, "v4", nullptr}));
    EXPECT_EQ(stored.kind, uint32_t{DATASTORE_VALUE_TUPLE});
    EXPECT_EQ(stored.bytes, std::string("\2\0\0\0\2\0v4\0", 9));
    EXPECT_EQ(round_trip("sshd/vrf/blue", strings({nullptr, "v4", nullptr})),
              datastore_value(strings({nullptr, "v4", nullptr})));
}

TEST(schema_store, a_short_array_has_absent_fields_at_the_end) {
    EXPECT_EQ(stored_of("sshd/vrf/blue", datastore_fields()).bytes, std::string("\0\0\0\0", 4));
    EXPECT_EQ(round_trip("sshd/vrf/blue", strings({nullptr, "v4"})),
              datastore_value(strings({nullptr, "v4", nullptr})));
}

TEST(schema_store, absent_fields_at_the_end_do_not_count) {
    EXPECT_EQ(round_trip("cmn/algorithms/cipher", strings({"aes128-ctr", nullptr, nullptr})),
              datastore_value(strings({"aes128-ctr"})));
    EXPECT_EQ(stored_of("sshd/vrf/blue", datastore_fields(100)).bytes, std::string("\0\0\0\0", 4));
    EXPECT_NE(refusal_of("cmn/algorithms/cipher", strings({nullptr, nullptr})).find("is an empty list"),
              std::string::npos);
}

TEST(schema_store, names_the_field_that_does_not_fit) {
    EXPECT_EQ(
        refusal_of("sshd/vrf/blue", strings({nullptr, "v4 list"})),
        "field 2 (ipv4_acl): \"v4 list\" contains a character that is not allowed; expected 1 to 64 letters, digits, '_', "
        "'-' or '.', not beginning with '-' or '.' (name of an IPv4 access list)");
    EXPECT_EQ(refusal_of("sshd/vrf/blue", strings({"one"})),
              "field 1 (index): \"one\" is not a number; expected a number from 0 to 2147483647 (not used)");
    EXPECT_EQ(refusal_of("sshd/vrf/blue", datastore_fields{int64_t{1} << 31}),
              "field 1 (index): 2147483648 is out of range; expected a number from 0 to 2147483647 (not used)");
}

TEST(schema_store, refuses_anything_but_an_array_and_one_that_is_too_long) {
    EXPECT_EQ(
        refusal_of("sshd/vrf/blue", strings({nullptr, nullptr, nullptr, "v4"})),
        "[null, null, null, \"v4\"] has too many fields; expected an array of at most 3 fields (SSH server of a VRF), "
        "null for an absent one: index, ipv4_acl, ipv6_acl");
    EXPECT_NE(refusal_of("sshd/vrf/blue", true).find("true is not an array"), std::string::npos);
    EXPECT_LT(refusal_of("sshd/vrf/blue", datastore_fields(100000, int64_t{1})).size(), 400u);
}

TEST(schema_store, keeps_the_order_of_a_list_and_refuses_gaps) {
    const datastore_value list = strings({"aes256-ctr", "aes128-ctr"});
    EXPECT_EQ(round_trip("cmn/algorithms/cipher", list), list);
    EXPECT_NE(refusal_of("cmn/algorithms/cipher", datastore_fields()).find("[] is an empty list"), std::string::npos);
    EXPECT_NE(refusal_of("cmn/algorithms/cipher", strings({nullptr, "aes128-ctr"})).find("has a gap"),
              std::string::npos);
    EXPECT_NE(
        refusal_of("cmn/algorithms/cipher", strings({"aes128-ctr", nullptr, "aes256-ctr", nullptr})).find("has a gap"),
        std::string::npos);
    EXPECT_EQ(refusal_of("cmn/algorithms/key-exchange", strings({nullptr})),
              "[null] is an empty list; expected an array of 1 to 9 strings (key-exchange algorithms in order of "
              "preference), each 1 to 40 letters, digits, '_', '-', '.', '@' or '+', not beginning with '-' or '.' "
              "(algorithm name)");
}

TEST(schema_store, accepts_nine_key_exchanges_and_ten_ciphers_of_forty_characters) {
    datastore_fields names(9, datastore_scalar(std::string(40, 'a')));
    EXPECT_EQ(round_trip("cmn/algorithms/key-exchange", names), datastore_value(names));
    names.emplace_back(std::string(40, 'b'));
    EXPECT_NE(refusal_of("cmn/algorithms/key-exchange", names).find("too many fields"), std::string::npos);
    EXPECT_EQ(round_trip("cmn/algorithms/cipher", names), datastore_value(names));
    names[9] = std::string(41, 'b');
    EXPECT_NE(refusal_of("cmn/algorithms/cipher", names).find("field 10 (algorithm_10)"), std::string::npos);
}

TEST(schema_store, requires_at_least_one_host_key_algorithm) {
    EXPECT_EQ(round_trip("cmn/algorithms/host-key", flags({true, false})), datastore_value([] {
                  datastore_fields fields(10);
                  fields[0] = true;
                  fields[1] = false;
                  return fields;
              }()));
    EXPECT_NE(refusal_of("cmn/algorithms/host-key", flags({false, false})).find("selects nothing"), std::string::npos);
    EXPECT_NE(refusal_of("cmn/algorithms/host-key", datastore_fields()).find("selects nothing"), std::string::npos);
}

TEST(schema_load, refuses_bytes_of_another_form) {
    struct wrong {
        const char* item;
        datastore_stored stored;
    };
    for (const wrong& row : {wrong{"cmn/timeout", {DATASTORE_VALUE_NUMBER, "abc"}},
                             wrong{"cmn/timeout", {DATASTORE_VALUE_TEXT, std::string("45\0", 3)}},
                             wrong{"cmn/trustpoint/host", {DATASTORE_VALUE_TEXT, ""}},
                             wrong{"cmn/trustpoint/host", {DATASTORE_VALUE_TEXT, "no nul"}},
                             wrong{"cmn/trustpoint/host", {DATASTORE_VALUE_TEXT, std::string("two\0nul\0", 8)}},
                             wrong{"sshd/vrf/blue", {DATASTORE_VALUE_TUPLE, "abc"}},
                             wrong{"sshd/vrf/blue", {0, std::string("\0\0\0\0", 4)}}}) {
        datastore_value value = text("untouched");
        EXPECT_EQ(schema_load(*schema_find(std::string(server) + row.item, nullptr), row.stored, value),
                  platform_status{EINVAL});
        EXPECT_EQ(value, datastore_value(text("untouched")));
    }
}

// A range that has become narrower must not make the stored configuration unreadable.
TEST(schema_load, ignores_the_range) {
    datastore_value value;
    ASSERT_EQ(schema_load(*schema_find(std::string(server) + "cmn/timeout", nullptr),
                          {DATASTORE_VALUE_NUMBER, std::string("\xff\xff\0\0", 4)}, value),
              PLATFORM_OK);
    EXPECT_EQ(value, datastore_value(int64_t{65535}));
}

TEST(schema_display, shows_values_on_one_line) {
    EXPECT_EQ(schema_display(int64_t{-5}), "-5");
    EXPECT_EQ(schema_display(false), "false");
    EXPECT_EQ(schema_display(2.5), "2.5");
    EXPECT_EQ(schema_display(text("a\"b\n")), "\"a\\\"b\\x0a\"");
    EXPECT_EQ(schema_display(datastore_fields{int64_t{1}, std::nullopt, text("x")}), "[1, null, \"x\"]");
    EXPECT_LT(schema_display(datastore_fields(1000, datastore_scalar(int64_t{1}))).size(), 100u);
}

}  // namespace
