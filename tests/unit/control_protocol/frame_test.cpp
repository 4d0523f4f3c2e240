#include "control_protocol/frame.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string frame_of(const std::string& document) {
    const auto header = control_frame_header(static_cast<uint32_t>(document.size()));
    return std::string(header.begin(), header.end()) + document;
}

std::string header_announcing(uint32_t length) {
    const auto header = control_frame_header(length);
    return {header.begin(), header.end()};
}

TEST(control_frame, header_is_big_endian) {
    EXPECT_EQ(header_announcing(0x01020304), std::string("\x01\x02\x03\x04"));
    EXPECT_EQ(header_announcing(0xfffefdfc), std::string("\xff\xfe\xfd\xfc"));
}

TEST(control_frame, arrives_byte_by_byte) {
    const std::string document = R"({"call":"status"})";
    control_frame_reader reader;
    EXPECT_FALSE(control_frame_begun(reader));
    for (const char byte : frame_of(document)) {
        EXPECT_EQ(control_frame_progress(reader), control_frame_state::incomplete);
        EXPECT_EQ(control_frame_take(reader, std::string_view(&byte, 1)), 1U);
        EXPECT_TRUE(control_frame_begun(reader));
    }
    EXPECT_EQ(control_frame_progress(reader), control_frame_state::complete);
    EXPECT_EQ(reader.document, document);
}

TEST(control_frame, leaves_the_next_frame_in_the_buffer) {
    control_frame_reader reader;
    const std::string first = frame_of("{}");
    EXPECT_EQ(control_frame_take(reader, first + frame_of("[]")), first.size());
    EXPECT_EQ(control_frame_progress(reader), control_frame_state::complete);
    EXPECT_EQ(reader.document, "{}");
}

TEST(control_frame, missing_counts_the_header_first) {
    control_frame_reader reader;
    EXPECT_EQ(control_frame_missing(reader), 4U);
    control_frame_take(reader, frame_of("123456").substr(0, 6));
    EXPECT_EQ(control_frame_missing(reader), 4U);
    EXPECT_EQ(control_frame_length(reader), 6U);
}

TEST(control_frame, an_empty_document_is_complete) {
    control_frame_reader reader;
    EXPECT_EQ(control_frame_take(reader, frame_of("")), 4U);
    EXPECT_EQ(control_frame_progress(reader), control_frame_state::complete);
}

TEST(control_frame, the_largest_frame_is_accepted_and_a_larger_one_refused_by_its_header) {
    control_frame_reader largest;
    control_frame_take(largest, header_announcing(CONTROL_FRAME_MAX));
    EXPECT_EQ(control_frame_progress(largest), control_frame_state::incomplete);

    control_frame_reader larger;
    EXPECT_EQ(control_frame_take(larger, header_announcing(CONTROL_FRAME_MAX + 1) + "xxxx"), 4U);
    EXPECT_EQ(control_frame_progress(larger), control_frame_state::too_large);
    EXPECT_TRUE(larger.document.empty());
}

TEST(control_frame, a_header_alone_allocates_nothing) {
    control_frame_reader reader;
    control_frame_take(reader, header_announcing(CONTROL_FRAME_MAX) + "x");
    EXPECT_LT(reader.document.capacity(), 1024U);
}

}  // namespace
