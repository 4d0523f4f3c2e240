/// Shell commands. Each has a time limit, so that no command can stop the agent.
#ifndef CORE_SHELL_COMMAND_H
#define CORE_SHELL_COMMAND_H

#include <cstdint>

struct command_limit {
    uint32_t milliseconds;
    bool give_up;  ///< after a command with this limit has timed out, those after it in the same group fail at once
};

/// systemd starts or stops a server in less than a second, and reloads hundreds of units in a few seconds. When it
/// hangs, it hangs for every unit, so a commit waits only once.
inline constexpr command_limit systemctl_limit = {30'000, true};

/// nft loads 10,000 rules in about a second.
inline constexpr command_limit nft_limit = {30'000, false};

/// Configuration files are a few kilobytes, but a busy disk may take seconds to write one.
inline constexpr command_limit copy_limit = {30'000, false};

/// Listing processes or namespaces takes milliseconds.
inline constexpr command_limit listing_limit = {10'000, false};

/// Runs a command through /bin/sh in a process group of its own and waits for it to end. `output`, unless negative, is
/// the descriptor of its standard output. Returns the wait status, with errno unchanged, or -1 with errno set:
/// ETIMEDOUT if the command did not end in time, in which case its process group has been killed, otherwise the reason
/// why the shell could not be started.
int run_shell_command(const char* command, const command_limit& limit, int output = -1);

/// Begins and ends a group of commands, above all those of one commit. Groups may be nested; the outermost counts.
/// Outside of a group every command is tried.
void begin_command_group();
void end_command_group();

#endif
