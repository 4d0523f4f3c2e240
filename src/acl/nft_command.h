/// What a command says on standard error, for the log.
#ifndef ACL_COMMAND_WORDS_H
#define ACL_COMMAND_WORDS_H

#include <cstddef>

/// Runs an nft command like run_shell_command and returns its result, with errno as left by run_shell_command. `words`
/// (`size` bytes, NUL-terminated) receives the beginning of what the command wrote to standard error, empty if it wrote
/// nothing; all of it is also passed on to the agent's own standard error.
int run_command(const char* command, char* words, size_t size);

/// Formats the first complaint of nft as one line: its message and the rule that it points at.
void shorten_complaint(char* words);

#endif
