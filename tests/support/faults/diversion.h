/// What the diverted calls ask before they go on.
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

/// Names the object of a call, when somebody asks.
using object_name = std::function<std::string()>;

/// Counts the call, kills the process when its hour has come, and says what is to be done. Leaves errno alone.
verdict before(diverted_call call, const object_name& object);

/// The same kill, after a call that was done. Leaves errno alone.
void after(diverted_call call);

/// The file behind a descriptor or a stream.
std::string file_of(int fd);
std::string file_of(FILE* file);

/// Passes a sleep() on to its observer. Returns whether there was one.
bool sleep_observed(unsigned int seconds);

/// Whether the call of the group "sleeping" is to return at once, and its time is then counted.
bool sleep_skipped(uint64_t milliseconds);

/// Tells the observer of a command.
void announce(const char* command);

/// The time limit of all commands that have a longer one, in milliseconds.
uint32_t longest_command();

}  // namespace call_faults

#endif
