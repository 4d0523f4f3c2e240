#include "core/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "../agent_test.h"

namespace {

using log_test = agent_test;

using fake_platform::log_line;
using testing::ElementsAre;

/// The message that `send` leaves behind.
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

struct catalogue_case {
    void (*send)();
    const char* name;
    uint32_t severity;
    const char* text;
};

// In the order of the catalogue, which numbers its entries from 0x1E00001D on.
const catalogue_case catalogue_cases[] = {
    {[] { log_location(ERR_BAG_DECODE, ENOENT, "here"); }, "ERR_BAG_DECODE", 3,
     "Error:=No such file or directory(0x2), Location:=here, bag decode failed"},
    {[] { log_location(ERR_BAG_ENCODE, ENOENT, "here"); }, "ERR_BAG_ENCODE", 3,
     "Error:=No such file or directory(0x2), Location:=here, bag encode failed"},
    {[] { log_details("one", "two", "three"); }, "ERR_DETAILS", 3, "one two three"},
    {[] { log_status(ERR_ERRNO, ENOENT, "it failed"); }, "ERR_ERRNO", 3,
     "Error:=No such file or directory(0x2), it failed"},
    {[] { log_text(ERR_GENERAL, "text"); }, "ERR_GENERAL", 3, "text"},
    {[] { log_trace_failure("cfg-agent", "error-trace", 200, "ssh/cfg-agent/error", ENOENT); }, "ERR_LTRACE_INIT", 3,
     "process:=cfg-agent, trace-type:=error-trace, size:=200, name:=ssh/cfg-agent/error, "
     "Error:=No such file or directory(0x2) init failed"},
    {[] { log_location(ERR_MALLOC, ENOMEM, "here"); }, "ERR_MALLOC", 3,
     "Error:=Cannot allocate memory(0xc), Location:=here, Failed to allocate memory"},
    {[] { log_shutdown(ERR_SHUTDOWN, 3, 2, 15, "text"); }, "ERR_SHUTDOWN", 3,
     "Active Sessions:=3, Sessions Terminated:=2, signal sent during shutdown:=15, text"},
    {[] { log_location(ERR_DATASTORE_BIND, ENOENT, "here"); }, "ERR_DATASTORE_BIND", 3,
     "Error:=No such file or directory(0x2), Location:=here, Failed to bind to datastore"},
    {[] { log_location(ERR_DATASTORE_DATALIST, ENOENT, "here"); }, "ERR_DATASTORE_DATALIST", 3,
     "Error:=No such file or directory(0x2), Location:=here, Failed to list data"},
    {[] { log_location(ERR_DATASTORE_DELETE, ENOENT, "here"); }, "ERR_DATASTORE_DELETE", 3,
     "Error:=No such file or directory(0x2), Location:=here, Failed to delete from datastore"},
    {[] { log_unknown_event("here", 0x10); }, "ERR_DATASTORE_EVENT", 4,
     "Location:=here, Event:=0x10, Received unknown event from  Datastore"},
    {[] { log_location(ERR_DATASTORE_GET, ENOENT, "here"); }, "ERR_DATASTORE_GET", 3,
     "Error:=No such file or directory(0x2), Location:=here, Failed to get an item from datastore"},
    {[] { log_location(ERR_DATASTORE_SET, ENOENT, "here"); }, "ERR_DATASTORE_SET", 3,
     "Error:=No such file or directory(0x2), Location:=here, Failed to set an item in datastore"},
    {[] { log_location(ERR_DATASTORE_UNPACK, ENOENT, "/path"); }, "ERR_DATASTORE_UNPACK", 3,
     "Error:=No such file or directory(0x2), Path:=/path, Failed to unpack datastore item"},
    {[] { log_text(INFO_GENERAL, "text"); }, "INFO_GENERAL", 6, "text"},
    {[] { log_shutdown(INFO_SHUTDOWN, 3, 2, 15, "text"); }, "INFO_SHUTDOWN", 6,
     "Active Sessions:=3, Sessions Terminated:=2, signal sent during shutdown:=15, text"},
    {[] { log_stale_session(9); }, "STALE_SESSION", 3, "Stale:=9, stale session"},
    {[] { log_status(WARN_ERRNO, ENOENT, "it failed"); }, "WARN_ERRNO", 4,
     "Error:=No such file or directory(0x2), it failed"},
    {[] { log_fips_default(); }, "WARNING_FIPS", 4,
     "No fips supported key-exchange algorithm configured, Using the default"},
    {[] { log_text(WARNING_GENERAL, "text"); }, "WARNING_GENERAL", 4, "text"},
};

TEST_F(log_test, every_entry_has_its_name_severity_number_and_format) {
    ASSERT_EQ(std::size(catalogue_cases), 21u);
    ASSERT_EQ(size_t{log_entry_count}, 21u);
    uint32_t number = 0x1E00001D;
    for (const catalogue_case& row : catalogue_cases) {
        expect_message(message_of(row.send), row.name, row.severity, number, row.text);
        number++;
    }
}

TEST_F(log_test, the_usual_failures_have_wrappers) {
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

TEST_F(log_test, a_long_text_is_cut) {
    const std::string text(5000, 'a');
    EXPECT_EQ(message_of([&] { log_error(text.c_str()); }).text, std::string(1023, 'a'));
}

TEST_F(log_test, an_absent_text_is_shown) {
    EXPECT_EQ(message_of([] { log_error(nullptr); }).text, "NULL");
}

TEST_F(log_test, a_percent_sign_in_a_text_is_no_format) {
    EXPECT_EQ(message_of([] { log_error("100%s %n"); }).text, "100%s %n");
}

TEST_F(log_test, logging_leaves_errno_alone) {
    for (const catalogue_case& row : catalogue_cases) {
        errno = ELOOP;
        row.send();
        EXPECT_EQ(errno, ELOOP) << row.name;
    }
}

}  // namespace
