/// The output of a shell command.
#ifndef CORE_COMMAND_OUTPUT_H
#define CORE_COMMAND_OUTPUT_H

#include <cstdio>

#include "core/shell_command.h"

/// Runs a command like run_shell_command and returns what it wrote to its standard output, whatever its exit status.
/// The caller closes the stream. Returns null with errno set when the command could not be run or did not end in time.
FILE* read_shell_command(const char* command, const command_limit& limit);

#endif
