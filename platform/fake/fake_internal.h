/// Declarations shared by the parts of the fake platform.
#ifndef FAKE_FAKE_INTERNAL_H
#define FAKE_FAKE_INTERNAL_H

#include <initializer_list>
#include <string>

#include "fake_platform.h"

namespace fake_platform::internal {

/// An argument of a recorded call.
struct call_argument {
    std::string text;
    call_argument(const char* value) : text(value != nullptr ? value : "NULL") {}
    call_argument(std::string value) : text(std::move(value)) {}
    call_argument(uint32_t value) : text(std::to_string(value)) {}
    call_argument(int32_t value) : text(std::to_string(value)) {}
};

std::string hexadecimal(uint32_t value);

/// Records a call and returns the status to fail with, or PLATFORM_OK.
platform_status enter(const char* operation, std::initializer_list<call_argument> arguments);

/// Whether reports are recorded.
bool recording();

/// A copy of the text for a caller that frees it. It does not use malloc, so that tests that make the agent's malloc
/// fail do not hit the platform.
char* allocated_text(const std::string& text);

void reset_calls();
void reset_datastore();
void reset_providers();
void reset_event_manager();
void reset_reports();
void reset_process_node_mpp();
void reset_shelf();
void reset_enforcement();
void reset_packet_filter();
void reset_server_processes();

/// Announces a commit to the agent for as long as it lives.
class announced_commit {
  public:
    announced_commit();
    ~announced_commit();
    announced_commit(const announced_commit&) = delete;
    announced_commit& operator=(const announced_commit&) = delete;
};

/// How many failures of enforcement have been reported so far, and those after the first `count` that are still valid.
size_t enforcement_reports();
std::vector<unenforced> unenforced_since(size_t count);
void reset_acl_keys_banners();

}  // namespace fake_platform::internal

#endif
