/// What the parts of the fake platform share.
#ifndef FAKE_FAKE_INTERNAL_H
#define FAKE_FAKE_INTERNAL_H

#include <initializer_list>
#include <string>

#include "fake_platform.h"

namespace fake_platform::internal {

/// An argument of a call, as it is recorded.
struct call_argument {
    std::string text;
    call_argument(const char* value) : text(value != nullptr ? value : "NULL") {}
    call_argument(std::string value) : text(std::move(value)) {}
    call_argument(uint32_t value) : text(std::to_string(value)) {}
    call_argument(int32_t value) : text(std::to_string(value)) {}
};

std::string hexadecimal(uint32_t value);

/// Records a call and returns what it is to fail with, or PLATFORM_OK.
platform_status enter(const char* operation, std::initializer_list<call_argument> arguments);

/// Whether reports are to be kept.
bool recording();

/// Text in memory of its own, for a caller that frees it. Not from malloc, so that tests that let the agent's malloc
/// fail do not hit the platform.
char* allocated_text(const std::string& text);

void reset_calls();
void reset_datastore();
void reset_providers();
void reset_event_manager();
void reset_reports();
void reset_services();
void reset_shelf();
void reset_enforcement();

/// How many failures of enforcement have been reported so far, and those after the first `count` that still stand.
size_t enforcement_reports();
std::vector<unenforced> unenforced_since(size_t count);
void reset_access();

}  // namespace fake_platform::internal

#endif
