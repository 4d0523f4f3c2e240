/// The functions that diverted calls use to find out whether they fail.
#ifndef SUPPORT_DIVERSION_H
#define SUPPORT_DIVERSION_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

namespace call_faults {

enum diverted_call : uint32_t {
#define DIVERTED(call, group, changes) diverted_##call,
#include "diverted_calls.def"
#undef DIVERTED
    diverted_call_count
};

enum class action { go_on, fail, cut, answer };

struct verdict {
    call_faults::action action = action::go_on;
    int error = 0;
    size_t bytes = 0;
    int result = 0;
};

/// Returns the object of a call; only called if it is needed.
using object_name = std::function<std::string()>;

/// Counts the call, kills the process if the call is its kill point, and returns how to continue. Leaves errno alone.
verdict before(diverted_call call, const object_name& object);

/// The same after the call, for a kill point after it. Leaves errno alone.
void after(diverted_call call);

/// The file behind a descriptor or a stream.
std::string file_of(int fd);
std::string file_of(FILE* file);

/// Passes a sleep() on to its observer. Returns whether there was one.
bool sleep_observed(unsigned int seconds);

/// Whether a call of the group "sleeping" returns immediately; if so, adds its time to the total.
bool sleep_skipped(uint64_t milliseconds);

/// Passes a command to its observer.
void announce(const char* command);

/// The upper bound of every command's time limit, in milliseconds.
uint32_t longest_command();

}  // namespace call_faults

#endif
