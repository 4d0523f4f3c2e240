/// Shared by the stub commands and the tests that control them: a directory with a log and a table of rules.
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

/// Matches command lines that are `command` or begin with it and a space.
struct rule {
    char command[512];
    std::atomic<uint32_t> skip;   ///< matching calls that are still skipped
    std::atomic<uint32_t> times;  ///< calls that it still applies to, or `endless`
    uint32_t has_status;
    int32_t status;     ///< exit status, or a negated signal number
    char output[256];   ///< file to print to standard output, or empty
    char hook[1024];    ///< shell command to run before the end, or empty
    uint32_t delay_ms;  ///< duration of the command
};

struct rule_table {
    std::atomic<uint32_t> count;
    rule rules[rules_max];
};

}  // namespace stub_commands

#endif
