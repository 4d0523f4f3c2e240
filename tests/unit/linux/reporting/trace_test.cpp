#include "platform/trace.h"

#include <ctime>

#include "linux/reporting/trace_internal.h"
#include "unit/linux/platform_test_support.h"

namespace {

/// All tests of a process share the buffers, so each creates its own.
class trace_test : public testing::Test {
  protected:
    std::string name() const {
        return std::string("test/") + testing::UnitTest::GetInstance()->current_test_info()->name();
    }
    trace_buffer* create(uint32_t entries, uint32_t bytes) {
        trace_buffer* buffer = nullptr;
        EXPECT_EQ(0u, trace_buffer_create(name().c_str(), entries, bytes, &buffer));
        return buffer;
    }
    trace_buffer_contents contents() {
        trace_buffer_contents read = {};
        EXPECT_EQ(0u, trace_buffer_read(name(), read));
        return read;
    }
};

TEST_F(trace_test, keeps_time_code_and_arguments) {
    trace_buffer* buffer = create(200, 12400);
    const trace_argument arguments[] = {{"red", 7}, {nullptr, -5}, {"", 0}};
    const auto before = static_cast<uint64_t>(time(nullptr));
    trace_write(buffer, 0x1234, arguments, 3);
    const trace_buffer_contents read = contents();
    ASSERT_EQ(1u, read.records.size());
    const trace_record& record = read.records[0];
    EXPECT_EQ(0x1234u, record.code);
    EXPECT_LE(before, record.microseconds / 1000000);
    EXPECT_GE(before + 2, record.microseconds / 1000000);
    ASSERT_EQ(3u, record.arguments.size());
    EXPECT_TRUE(record.arguments[0].is_text);
    EXPECT_EQ("red", record.arguments[0].text);
    EXPECT_FALSE(record.arguments[1].is_text);
    EXPECT_EQ(-5, record.arguments[1].number);
    EXPECT_TRUE(record.arguments[2].is_text);
    EXPECT_EQ("", record.arguments[2].text);
}

TEST_F(trace_test, the_oldest_entry_is_replaced_when_the_number_is_reached) {
    trace_buffer* buffer = create(3, 1000);
    for (uint32_t point = 1; point <= 5; ++point) {
        trace_write(buffer, point, nullptr, 0);
    }
    const trace_buffer_contents read = contents();
    ASSERT_EQ(3u, read.records.size());
    EXPECT_EQ(3u, read.records.front().code);
    EXPECT_EQ(5u, read.records.back().code);
    EXPECT_EQ(5u, read.written);
}

TEST_F(trace_test, the_oldest_entries_are_replaced_when_the_bytes_are_used_up) {
    trace_buffer* buffer = create(1000, 300);
    for (int64_t i = 0; i < 1000; ++i) {
        // Lengths that do not divide the ring's size make records wrap at every position.
        const std::string text(static_cast<size_t>(i % 23), static_cast<char>('a' + i % 26));
        const trace_argument arguments[] = {{text.c_str(), 0}, {nullptr, i}};
        trace_write(buffer, static_cast<uint32_t>(i), arguments, 2);
        const trace_buffer_contents read = contents();
        ASSERT_FALSE(read.records.empty());
        ASSERT_EQ(text, read.records.back().arguments[0].text);
        ASSERT_EQ(i, read.records.back().arguments[1].number);
        ASSERT_EQ(static_cast<uint64_t>(i + 1), read.written);
        for (size_t older = 0; older < read.records.size(); ++older) {
            ASSERT_EQ(static_cast<uint32_t>(i) - (read.records.size() - 1 - older), read.records[older].code);
        }
    }
}

TEST_F(trace_test, texts_are_truncated_so_that_every_entry_fits) {
    trace_buffer* buffer = create(10, 100);
    const std::string text(1000, 'x');
    const trace_argument arguments[] = {{text.c_str(), 0}, {text.c_str(), 0}, {nullptr, 9}};
    trace_write(buffer, 1, arguments, 3);
    trace_write(buffer, 2, arguments, 3);
    const trace_buffer_contents read = contents();
    ASSERT_EQ(1u, read.records.size());
    EXPECT_EQ(2u, read.records[0].code);
    EXPECT_EQ(9, read.records[0].arguments[2].number);
    EXPECT_LT(read.records[0].arguments[0].text.size(), 100u);
}

TEST_F(trace_test, a_text_is_truncated_to_255_characters) {
    trace_buffer* buffer = create(10, 2000);
    const std::string text(1000, 'x');
    const trace_argument arguments[] = {{text.c_str(), 0}, {text.c_str(), 0}, {text.c_str(), 0}};
    trace_write(buffer, 1, arguments, 3);
    const trace_buffer_contents read = contents();
    ASSERT_EQ(1u, read.records.size());
    for (const traced_argument& value : read.records[0].arguments) {
        EXPECT_EQ(std::string(255, 'x'), value.text);
    }
}

TEST_F(trace_test, a_fourth_argument_is_dropped) {
    trace_buffer* buffer = create(10, 1000);
    const trace_argument arguments[] = {{nullptr, 1}, {nullptr, 2}, {nullptr, 3}, {nullptr, 4}};
    trace_write(buffer, 1, arguments, 4);
    EXPECT_EQ(3u, contents().records.at(0).arguments.size());
}

TEST_F(trace_test, a_missing_buffer_or_argument_list_is_accepted_and_errno_kept) {
    errno = ENOSPC;
    trace_write(nullptr, 1, nullptr, 2);
    trace_buffer* buffer = create(10, 1000);
    errno = ENOSPC;
    trace_write(buffer, 1, nullptr, 2);
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_TRUE(contents().records.at(0).arguments.empty());
}

TEST_F(trace_test, a_buffer_is_also_found_by_its_last_component) {
    create(10, 1000);
    trace_buffer_contents read = {};
    EXPECT_EQ(0u, trace_buffer_read(testing::UnitTest::GetInstance()->current_test_info()->name(), read));
    EXPECT_EQ(static_cast<platform_status>(ENOENT), trace_buffer_read("test/", read));
}

TEST_F(trace_test, entries_contain_the_description_of_their_point) {
    static const trace_point points[] = {{7, "vrf.restarted", "server restarted", {"vrf"}}};
    trace_buffer* buffer = create(10, 1000);
    trace_write(buffer, 7, nullptr, 0);
    EXPECT_EQ(nullptr, contents().records.at(0).point);
    trace_buffer_describe(buffer, points, 1);
    trace_write(buffer, 8, nullptr, 0);
    EXPECT_EQ(&points[0], contents().records.at(0).point);
    EXPECT_EQ(nullptr, contents().records.at(1).point);
    trace_buffer_describe(nullptr, points, 1);
}

TEST_F(trace_test, refuses_an_invalid_buffer) {
    trace_buffer* buffer = nullptr;
    const platform_status invalid = EINVAL;
    EXPECT_EQ(invalid, trace_buffer_create(nullptr, 200, 12400, &buffer));
    EXPECT_EQ(invalid, trace_buffer_create("", 200, 12400, &buffer));
    EXPECT_EQ(invalid, trace_buffer_create("test/x", 0, 12400, &buffer));
    EXPECT_EQ(invalid, trace_buffer_create("test/x", 200, 10, &buffer));
    EXPECT_EQ(invalid, trace_buffer_create("test/x", 200, 12400, nullptr));
    EXPECT_EQ(nullptr, buffer);
    create(10, 1000);
    EXPECT_EQ(static_cast<platform_status>(EEXIST), trace_buffer_create(name().c_str(), 10, 1000, &buffer));
}

}  // namespace
