#include "control_protocol/json_text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <new>
#include <string>

namespace {

// Allocations since a test has set the count to 0, and the number at which they fail.
size_t allocations = 0;
size_t allocations_max = SIZE_MAX;

void* allocate(size_t size) {
    allocations++;
    void* memory = allocations > allocations_max ? nullptr : std::malloc(size > 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

void* operator new(size_t size) {
    return allocate(size);
}
void* operator new[](size_t size) {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, size_t /*size*/) noexcept {
    std::free(memory);
}

namespace {

using testing::Test;

std::string refusal(std::string_view text) {
    std::string error;
    EXPECT_FALSE(control_json_parse(text, error).has_value()) << text.substr(0, 80);
    EXPECT_FALSE(error.empty());
    return error;
}

std::string read_and_written(std::string_view text) {
    std::string error;
    const auto document = control_json_parse(text, error);
    EXPECT_TRUE(document.has_value()) << error;
    return document.has_value() ? control_json_text(*document) : error;
}

std::string nested(size_t depth, const char* open, const char* close) {
    std::string text;
    for (size_t level = 0; level < depth; level++) {
        text += open;
    }
    for (size_t level = 0; level < depth; level++) {
        text += close;
    }
    return text;
}

TEST(control_json, reads_every_kind_of_value_and_keeps_the_order) {
    const char text[] = R"({"z":1,"a":-2,"m":[null,true,false,1.5,"ü",{}],"b":18446744073709551615,"c":{"x":[]}})";
    EXPECT_EQ(read_and_written(text), text);
    EXPECT_EQ(read_and_written(" \n 7 "), "7");
}

TEST(control_json, names_a_duplicate_member) {
    EXPECT_EQ(refusal(R"({"a":1,"b":2,"a":3})"), "duplicate name \"a\" in one object");
    EXPECT_EQ(refusal(R"([{"x":{"k\n":1,"k\n":1}}])"), "duplicate name \"k\\x0a\" in one object");
    EXPECT_EQ(refusal(R"({"a":1,"\u0061":2})"), "duplicate name \"a\" in one object");
    EXPECT_EQ(read_and_written(R"([{"a":1},{"a":2}])"), R"([{"a":1},{"a":2}])");
}

TEST(control_json, depth_is_limited) {
    EXPECT_EQ(read_and_written(nested(16, "[", "]")), nested(16, "[", "]"));
    EXPECT_EQ(refusal(nested(17, "[", "]")), "arrays and objects nested more than 16 levels deep");
    EXPECT_EQ(refusal(nested(17, "{\"a\":", "}")), "arrays and objects nested more than 16 levels deep");
    // A million brackets must exhaust neither the stack nor the time limit.
    EXPECT_EQ(refusal(std::string(1'000'000, '[')), "arrays and objects nested more than 16 levels deep");
}

TEST(control_json, number_of_values_is_limited) {
    std::string text = "[0";
    for (size_t count = 1; count < CONTROL_JSON_VALUES_MAX; count++) {
        text += ",0";
    }
    EXPECT_EQ(refusal(text + "]"), "more than 500000 values in one document");
    EXPECT_EQ(read_and_written(text.substr(0, text.size() - 2) + "]").size(), text.size() - 1);
}

TEST(control_json, the_time_for_an_object_is_proportional_to_its_size) {
    const auto seconds_for = [](int members) {
        std::string text = "{\"p\":0";
        for (int member = 0; member < members; member++) {
            text += ",\"/cfg/gl/a/long/common/beginning/" + std::to_string(member) + "\":1";
        }
        const std::clock_t start = std::clock();  // processor time: other programs do not count
        read_and_written(text + "}");
        return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    };
    seconds_for(1'500);
    EXPECT_LT(seconds_for(30'000), 60 * seconds_for(1'500)) << "20 times for proportional, 400 times for quadratic";
}

TEST(control_json, invalid_utf_8_is_refused) {
    EXPECT_NE(refusal("\"\xff\"").find("not JSON: "), std::string::npos);
    EXPECT_NE(refusal("\"\xc0\x80\"").find("UTF-8"), std::string::npos);          // overlong
    EXPECT_NE(refusal("\"\xed\xa0\x80\"").find("UTF-8"), std::string::npos);      // surrogate
    EXPECT_NE(refusal("\"\xf4\x90\x80\x80\"").find("UTF-8"), std::string::npos);  // beyond the last character
    EXPECT_NE(refusal("\"\xe2\x82").find("UTF-8"), std::string::npos);            // cut off
    refusal("\xff\xfe");
}

TEST(control_json, a_nul_byte_does_not_hide_the_text_after_it) {
    using namespace std::string_literals;
    EXPECT_EQ(refusal("{}\0{}"s), "not JSON: contains a NUL byte");
    EXPECT_EQ(refusal("\"a\0b\""s), "not JSON: contains a NUL byte");
    EXPECT_EQ(read_and_written(R"("a\u0000b")"), R"("a\u0000b")");
}

TEST(control_json, invalid_documents_are_refused) {
    for (const char* text :
         {"",    " ",   "{",   "}",       "[1,]", "{\"a\"}",  "{a:1}",   "01",     "1 2",   "{} x",
          "nul", "'a'", "\"a", "// c\n1", "NaN",  "Infinity", "\"\\x\"", "\"\n\"", "1e999", "\"\\ud800\""}) {
        EXPECT_TRUE(refusal(text).starts_with("not JSON: ")) << text;
    }
}

TEST(control_json, errors_name_the_position_and_fit_on_one_line) {
    EXPECT_NE(refusal("{\n  \"a\": 1\n  \"b\": 2\n}").find("line 3, column 5"), std::string::npos);
    const std::string error = refusal("\"" + std::string(100'000, 'x') + "\n");
    EXPECT_LT(error.size(), 400U);
    EXPECT_EQ(error.find('\n'), std::string::npos);
}

TEST(control_json, text_never_fails_on_bytes_that_are_not_utf_8) {
    EXPECT_EQ(control_json_text(control_json("a\xff")), "\"a\xef\xbf\xbd\"");
}

TEST(control_json, limits_hold_before_anything_is_built) {
    std::string text = "[";
    for (size_t count = 0; count < CONTROL_JSON_VALUES_MAX; count++) {
        text += "[],";
    }
    EXPECT_EQ(refusal(text), "more than 500000 values in one document") << "although it is not JSON";
    EXPECT_EQ(read_and_written(R"(["[[[[[[[[[[[[[[[[[[,\\",",,,,\"[[[[[[[[[[[[[[[[[["])"),
              R"(["[[[[[[[[[[[[[[[[[[,\\",",,,,\"[[[[[[[[[[[[[[[[[["])");
    EXPECT_EQ(read_and_written("[ [ ] , { } ]"), "[[],{}]");
}

TEST(control_json, is_released_without_memory) {
    std::string text = "[";
    for (int count = 0; count < 1000; count++) {
        text += R"({"a":[[1,"a text that is not short"],{"b":{}}]},)";
    }
    text.back() = ']';
    std::string error;
    std::optional<control_json> document = control_json_parse(text, error);
    ASSERT_TRUE(document.has_value()) << error;
    allocations = 0;
    control_json_release(*document);
    document.reset();
    EXPECT_EQ(allocations, 0U);
}

TEST(control_json, out_of_memory_is_an_exception_and_not_the_end) {
    std::string text = "[";
    for (int count = 0; count < 1000; count++) {
        text += R"({"a":[[1,"a text that is not short"],{"b":{}}]},)";
    }
    text.back() = ']';
    std::string error;
    text = R"({"x":)" + text +
           R"(,"a":[{"b":[1]}],"c":[{"d":[1]}],"e":1,"f":1,"g":[[1]],"h":[[1]],"i":[[1]],"j":1,"k":[[1]]})";
    allocations = 0;
    ASSERT_TRUE(control_json_parse(text, error).has_value()) << error;
    const size_t needed = allocations;
    for (size_t last = 1; last < needed / 2; last += last < needed / 2 - 200 ? 97 : 1) {
        allocations = 0;
        allocations_max = last;
        EXPECT_THROW(control_json_parse(text, error), std::bad_alloc);
        allocations_max = SIZE_MAX;
    }
}

}  // namespace
