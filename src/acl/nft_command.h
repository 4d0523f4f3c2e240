/// Runs nft and keeps its error messages for the log.
#ifndef ACL_NFT_COMMAND_H
#define ACL_NFT_COMMAND_H

#include <cstddef>

/// Runs an nft command like run_shell_command and returns its result, with errno as left by run_shell_command. `message`
/// (`size` bytes, NUL-terminated) receives the beginning of what the command wrote to standard error, empty if it wrote
/// nothing; all of it is also passed on to the agent's own standard error.
int run_nft_command(const char* command, char* message, size_t size);

/// Reduces a message to the first error of nft, as one line: its text and the rule that it refers to.
void shorten_nft_message(char* message);

#endif
