#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fake_internal.h"

namespace fake_platform {
namespace {

struct failure {
    std::string operation;
    platform_status status;
    uint32_t skip;
    uint32_t times;
};

std::vector<failure> failures;
std::vector<std::string> recorded;
bool record_on = true;

/// Whether `operation` identifies the call, by its name alone or by its full text.
bool names_call(std::string_view operation, std::string_view call) {
    return call == operation || (call.size() > operation.size() && call.substr(0, operation.size()) == operation &&
                                 call[operation.size()] == '(' && operation.find('(') == std::string_view::npos);
}

/// Every failure that matches the call counts it; the first one that is due determines the result.
platform_status scripted_failure(std::string_view call) {
    platform_status status = PLATFORM_OK;
    for (failure& candidate : failures) {
        if (candidate.times == 0 || !names_call(candidate.operation, call)) {
            continue;
        }
        if (candidate.skip > 0) {
            candidate.skip--;
        } else if (status == PLATFORM_OK) {
            status = candidate.status;
            candidate.times -= candidate.times != always;
        }
    }
    return status;
}

std::string call_text(const char* operation, std::initializer_list<internal::call_argument> arguments) {
    std::string text = operation;
    text += '(';
    const char* separator = "";
    for (const internal::call_argument& argument : arguments) {
        text += separator;
        text += argument.text;
        separator = ", ";
    }
    return text + ')';
}

}  // namespace

void reset() {
    internal::reset_calls();
    internal::reset_datastore();
    internal::reset_providers();
    internal::reset_event_manager();
    internal::reset_reports();
    internal::reset_process_node_mpp();
    internal::reset_shelf();
    internal::reset_enforcement();
    internal::reset_packet_filter();
    internal::reset_server_processes();
    internal::reset_acl_keys_banners();
}

void fail(std::string_view operation, platform_status status, uint32_t times, uint32_t from_call) {
    failures.push_back({std::string(operation), status, from_call - 1, times});
}

void clear_failures() {
    failures.clear();
}

const std::vector<std::string>& calls() {
    return recorded;
}

std::vector<std::string> calls_of(std::string_view prefix) {
    std::vector<std::string> found;
    std::copy_if(recorded.begin(), recorded.end(), std::back_inserter(found),
                 [prefix](const std::string& call) { return call.compare(0, prefix.size(), prefix) == 0; });
    return found;
}

size_t count_calls(std::string_view operation) {
    return static_cast<size_t>(std::count_if(recorded.begin(), recorded.end(), [operation](const std::string& call) {
        return names_call(operation, call);
    }));
}

void record_call(std::string call) {
    if (record_on) {
        recorded.push_back(std::move(call));
    }
}

void clear_calls() {
    recorded.clear();
}

void set_recording(bool on) {
    record_on = on;
}

namespace internal {

std::string hexadecimal(uint32_t value) {
    char text[16];
    snprintf(text, sizeof text, "0x%x", value);
    return text;
}

platform_status enter(const char* operation, std::initializer_list<call_argument> arguments) {
    if (!record_on && failures.empty()) {
        return PLATFORM_OK;
    }
    std::string text = call_text(operation, arguments);
    const platform_status status = scripted_failure(text);
    record_call(std::move(text));
    return status;
}

bool recording() {
    return record_on;
}

char* allocated_text(const std::string& text) {
    constexpr size_t alignment = 16;
    const size_t size = (text.size() / alignment + 1) * alignment;
    char* memory = static_cast<char*>(std::aligned_alloc(alignment, size));
    if (memory != nullptr) {
        memcpy(memory, text.c_str(), text.size() + 1);
    }
    return memory;
}

void reset_calls() {
    failures.clear();
    recorded.clear();
    record_on = true;
}

}  // namespace internal
}  // namespace fake_platform
