/// What the stub commands and the tests that steer them share: a directory with a log and a table of rules.
#ifndef SUPPORT_STUB_RULES_H
#define SUPPORT_STUB_RULES_H

#include <atomic>
#include <cstdint>

namespace stub_commands {

inline constexpr char log_file[] = "/stub_commands/log";
inline constexpr char rules_file[] = "/stub_commands/rules";
inline constexpr char units_directory[] = "/stub_commands/units";  ///< a file for each running unit
inline constexpr char failing_units_directory[] =
    "/stub_commands/failing_units";  ///< a file for each unit that cannot start

inline constexpr uint32_t rules_max = 256;
inline constexpr uint32_t endless = UINT32_MAX;

/// A rule holds for the commands whose line is `command` or begins with it and a blank.
struct rule {
    char command[512];
    std::atomic<uint32_t> skip;   ///< calls that are still let pass
    std::atomic<uint32_t> times;  ///< calls for which it still holds; `endless` for ever
    uint32_t has_status;
    int32_t status;     ///< exit status, or the negative of a signal
    char output[256];   ///< file whose content goes to standard output; empty for none
    char hook[1024];    ///< shell command run before the end; empty for none
    uint32_t delay_ms;  ///< time that the command takes
};

struct rule_table {
    std::atomic<uint32_t> count;
    rule rules[rules_max];
};

}  // namespace stub_commands

#endif
