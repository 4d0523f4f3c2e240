#include "linux/datastore/record_json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "platform/record_codec.h"

namespace {

void register_record(const record_descriptor& descriptor) {
    record_transaction* transaction = nullptr;
    ASSERT_EQ(record_registration_begin(&transaction), PLATFORM_OK);
    ASSERT_EQ(record_register(transaction, &descriptor), PLATFORM_OK);
    ASSERT_EQ(record_registration_end(transaction), PLATFORM_OK);
}

datastore_record encoded(const record_descriptor& descriptor, const void* record) {
    void* bytes = nullptr;
    size_t size = 0;
    EXPECT_EQ(record_encode(&descriptor, record, &bytes, &size), PLATFORM_OK);
    datastore_record result = {&descriptor, std::string(static_cast<const char*>(bytes), size)};
    free(bytes);
    return result;
}

std::string json_of(const record_descriptor& descriptor, const void* record) {
    control_json json;
    EXPECT_EQ(record_to_json(encoded(descriptor, record), json), PLATFORM_OK);
    return control_json_text(json);
}

constexpr record_descriptor values = {"values", "record_json_test",
                                      "$1={Number}D{Node}D%n{Short}I{Byte}C{Address}A{Raw}4xC{Text}s{Kind}[kind_en]e"
                                      "{Flag}b{Fixed}8x%S;",
                                      "$1=DD%nICA4xCseb8x%S;"};

struct values_record {
    uint32_t number;
    uint32_t node;
    uint16_t small;
    uint8_t byte;
    alignas(4) uint8_t address[4];
    uint8_t raw[4];
    const char* text;
    int32_t kind;
    uint32_t flag;
    char fixed[8];
};

constexpr values_record some_values = {4294967295,       7,      65535, 255, {192, 0, 2, 7},
                                       {0, 1, 254, 255}, "a\"b", -1,    1,   "eight.."};

TEST(record_to_json, writes_each_value_in_its_form) {
    register_record(values);
    EXPECT_EQ(json_of(values, &some_values),
              R"({"Number":4294967295,"Node":7,"Short":65535,"Byte":255,"Address":"192.0.2.7","Raw":[0,1,254,255],)"
              R"("Text":"a\"b","Kind":-1,"Flag":true,"Fixed":"eight.."})");
}

TEST(record_to_json, absent_values_are_empty) {
    register_record(values);
    const values_record nothing = {};
    EXPECT_EQ(json_of(values, &nothing),
              R"({"Number":0,"Node":0,"Short":0,"Byte":0,"Address":"0.0.0.0","Raw":[0,0,0,0],"Text":"","Kind":0,)"
              R"("Flag":false,"Fixed":""})");
}

TEST(record_to_json, invalid_utf_8_becomes_valid_json) {
    register_record(values);
    values_record record = some_values;
    record.text = "\xff\xc3(\x1b";
    const std::string text = json_of(values, &record);
    std::string error;
    EXPECT_TRUE(control_json_parse(text, error).has_value()) << error;
    EXPECT_THAT(text, testing::HasSubstr("\\u001b"));
}

constexpr record_descriptor sessions = {
    "sessions", "record_json_test",
    "$1={Incoming}p($2){Outgoing}p($2){One}p($3);$2=L{ID}D{Channels}a($3){NextSession}Pp($2);$3={ChannelID}D;",
    "$1=p($2)p($2)p($3);$2=LDa($3)Pp($2);$3=D;"};

struct channel_array {
    uint32_t count;
    const uint32_t* elements;
};

struct session_element {
    uint32_t id;
    channel_array channels;
    const session_element* next;
};

struct sessions_record {
    const session_element* incoming;
    const session_element* outgoing;
    const uint32_t* one;
};

TEST(record_to_json, lists_and_counted_arrays_are_arrays) {
    register_record(sessions);
    const uint32_t channels[] = {5, 6};
    const session_element last = {2, {0, nullptr}, nullptr};
    const session_element first = {1, {2, channels}, &last};
    const sessions_record record = {&first, nullptr, channels};
    EXPECT_EQ(json_of(sessions, &record),
              R"({"Incoming":[{"ID":1,"Channels":[{"ChannelID":5},{"ChannelID":6}]},{"ID":2,"Channels":[]}],)"
              R"("Outgoing":[],"One":{"ChannelID":5}})");
    const sessions_record empty = {};
    EXPECT_EQ(json_of(sessions, &empty), R"({"Incoming":[],"Outgoing":[],"One":null})");
}

constexpr record_descriptor list = {"list", "record_json_test", "$1=L{ID}D{NextSession}Pp($1);", "$1=LDPp($1);"};

struct list_element {
    uint32_t id;
    const list_element* next;
};

TEST(record_to_json, a_record_that_is_a_list_is_an_array) {
    register_record(list);
    const list_element last = {2, nullptr};
    const list_element first = {1, &last};
    EXPECT_EQ(json_of(list, &first), R"([{"ID":1},{"ID":2}])");
}

constexpr record_descriptor state = {"state", "record_json_test",
                                     "$1={Inner}$2;$2={Flag}p(b){Kind}p([kind_en]e){Short}p(I);",
                                     "$1=$2.;$2=p(b)p(e)p(I);"};

struct state_record {
    const uint32_t* flag;
    const int32_t* kind;
    const uint16_t* small;
};

TEST(record_to_json, optional_values_are_values_or_null) {
    register_record(state);
    constexpr uint32_t flag = 1;
    constexpr int32_t kind = -1;
    constexpr uint16_t small = 65535;
    const state_record all = {&flag, &kind, &small};
    EXPECT_EQ(json_of(state, &all), R"({"Inner":{"Flag":true,"Kind":-1,"Short":65535}})");
    const state_record none = {};
    EXPECT_EQ(json_of(state, &none), R"({"Inner":{"Flag":null,"Kind":null,"Short":null}})");
}

TEST(record_to_json, an_unregistered_record_is_not_read) {
    constexpr static record_descriptor stranger = {"stranger", "record_json_test", "$1={A}D;", "$1=D;"};
    control_json json = "as it was";
    EXPECT_EQ(record_to_json({&stranger, "abcd"}, json), platform_status{RECORD_UNKNOWN});
    EXPECT_EQ(json, "as it was");
}

TEST(record_to_json, bytes_of_another_record_leave_the_result_alone) {
    register_record(sessions);
    const uint32_t channels[] = {5, 6};
    const session_element first = {1, {2, channels}, nullptr};
    const sessions_record record = {&first, &first, channels};
    const datastore_record whole = encoded(sessions, &record);
    control_json json = "as it was";
    for (size_t size = 0; size < whole.bytes.size(); size++) {
        EXPECT_NE(record_to_json({&sessions, whole.bytes.substr(0, size)}, json), PLATFORM_OK) << size;
        EXPECT_EQ(json, "as it was");
    }
    EXPECT_NE(record_to_json({&sessions, whole.bytes + "x"}, json), PLATFORM_OK);
    EXPECT_EQ(record_to_json(whole, json), PLATFORM_OK);
}

}  // namespace
