#include "core/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <iterator>
#include <string>

#include "../agent_test.h"

namespace {

using log_test = agent_test;

using fake_platform::log_line;

/// The message that `send` logs.
template <typename Send>
log_line message_of(Send send) {
    fake_platform::clear_reports();
    send();
    EXPECT_EQ(fake_platform::log_lines().size(), 1u);
    return fake_platform::log_lines().empty() ? log_line{} : fake_platform::log_lines()[0];
}

void expect_message(const log_line& line, const char* name, uint32_t severity, uint32_t number, const char* text) {
    EXPECT_EQ(line.name, name);
    EXPECT_EQ(line.severity, severity) << name;
    EXPECT_EQ(line.number, number) << name;
    EXPECT_EQ(line.text, text);
}

/// One message of every entry, in the order of the catalogue.
void (*const messages[])() = {
    [] { log_location(ERR_BAG_DECODE, ENOENT, "here"); },
    [] { log_location(ERR_BAG_ENCODE, ENOENT, "here"); },
    [] { log_details("one", "two", "three"); },
    [] { log_status(ERR_ERRNO, ENOENT, "it failed"); },
    [] { log_text(ERR_GENERAL, "text"); },
    [] { log_trace_failure("cfg-agent", "error-trace", 200, "ssh/cfg-agent/error", ENOENT); },
    [] { log_location(ERR_MALLOC, ENOMEM, "here"); },
    [] { log_shutdown(ERR_SHUTDOWN, 3, 2, 15, "text"); },
    [] { log_location(ERR_DATASTORE_BIND, ENOENT, "here"); },
    [] { log_location(ERR_DATASTORE_DATALIST, ENOENT, "here"); },
    [] { log_location(ERR_DATASTORE_DELETE, ENOENT, "here"); },
    [] { log_unknown_event("here", 0x10); },
    [] { log_location(ERR_DATASTORE_GET, ENOENT, "here"); },
    [] { log_location(ERR_DATASTORE_SET, ENOENT, "here"); },
    [] { log_location(ERR_DATASTORE_UNPACK, ENOENT, "/path"); },
    [] { log_text(INFO_GENERAL, "text"); },
    [] { log_shutdown(INFO_SHUTDOWN, 3, 2, 15, "text"); },
    [] { log_stale_session(9); },
    [] { log_status(WARN_ERRNO, ENOENT, "it failed"); },
    [] { log_fips_default(); },
    [] { log_text(WARNING_GENERAL, "text"); },
};

static_assert(std::size(messages) == log_entry_count);

TEST_F(log_test, every_entry_has_its_name_severity_number_and_format) {
    std::string text;
    for (const auto send : messages) {
        const log_line line = message_of(send);
        ASSERT_NE(line.entry, nullptr);
        char number[16];
        snprintf(number, sizeof(number), "0x%08X", line.number);
        text += std::string(number) + ' ' + line.name + ", severity " + std::to_string(line.severity) + ", " +
                line.entry->category + ' ' + line.entry->facility + "\n    " + line.entry->format + "\n    " +
                line.text + '\n';
    }
    expect_golden("core/golden/message_catalogue", text);
}

TEST_F(log_test, common_failures_have_wrappers) {
    expect_message(message_of([] {
                       errno = EACCES;
                       log_errno("no way in");
                   }),
                   "ERR_ERRNO", 3, 0x1E000020, "Error:=Permission denied(0xd), no way in");
    expect_message(message_of([] { log_bind_failure(DATASTORE_UNAVAILABLE, "SSH"); }), "ERR_DATASTORE_BIND", 3,
                   0x1E000025,
                   (std::string("Error:=") + platform_status_text(DATASTORE_UNAVAILABLE) +
                    "(0x8081c200), Location:=SSH, Failed to bind to datastore")
                       .c_str());
    expect_message(message_of([] { log_error("text"); }), "ERR_GENERAL", 3, 0x1E000021, "text");
}

TEST_F(log_test, a_long_text_is_truncated) {
    const std::string text(5000, 'a');
    EXPECT_EQ(message_of([&] { log_error(text.c_str()); }).text, std::string(1023, 'a'));
}

TEST_F(log_test, a_null_text_is_shown) {
    EXPECT_EQ(message_of([] { log_error(nullptr); }).text, "NULL");
}

TEST_F(log_test, a_percent_sign_in_a_text_is_not_interpreted) {
    EXPECT_EQ(message_of([] { log_error("100%s %n"); }).text, "100%s %n");
}

TEST_F(log_test, logging_leaves_errno_alone) {
    for (const auto send : messages) {
        const std::string name = message_of(send).name;
        errno = ELOOP;
        send();
        EXPECT_EQ(errno, ELOOP) << name;
    }
}

}  // namespace
