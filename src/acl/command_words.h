/// What a command says on standard error, for the log.
#ifndef ACL_COMMAND_WORDS_H
#define ACL_COMMAND_WORDS_H

#include <cstddef>

/// Runs a command through the shell, as system() does, and returns its result with errno as system() left it. The
/// beginning of what the command wrote to standard error stands in `words` (`size` bytes, NUL-terminated, empty when it
/// wrote nothing) and has been passed on to the agent's own standard error.
int run_command(const char* command, char* words, size_t size);

/// Makes one line of the first complaint of nft: its message and the rule that it points at.
void shorten_complaint(char* words);

#endif
