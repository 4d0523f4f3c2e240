/// Runs other programs and collects their output.
#ifndef OPENSSH_RUN_PROGRAMS_H
#define OPENSSH_RUN_PROGRAMS_H

#include <chrono>
#include <string>
#include <vector>

namespace openssh {

struct program_result {
    /// The exit status; -1 if the program could not be started, was killed by a signal or timed out.
    int status = -1;
    /// Why the status is -1; empty otherwise.
    std::string failure;
    std::string output;  ///< its standard output, at most `most_program_output` bytes
    std::string errors;  ///< its standard error, likewise
};

constexpr size_t most_program_output = size_t{64} * 1024;

/// Runs the programs side by side, without a shell, with the null device as standard input, and waits for all of them. The
/// first word of each is the program's path. One that has not ended within the limit is killed. The results have the order
/// of the programs.
std::vector<program_result> run_programs(const std::vector<std::vector<std::string>>& programs,
                                         std::chrono::milliseconds limit);

}  // namespace openssh

#endif
