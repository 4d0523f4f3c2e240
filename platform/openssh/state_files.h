/// The launcher's files: the server file it reads, the translations it keeps, directories, atomic replacement.
///
/// The functions return a failure as a text for the operator; an empty text means success.
#ifndef OPENSSH_STATE_FILES_H
#define OPENSSH_STATE_FILES_H

#include <sys/types.h>

#include <string>
#include <string_view>

namespace openssh {

constexpr size_t largest_file = size_t{1024} * 1024;

/// Reads a regular file of at most `largest_file` bytes. Leaves `text` unchanged on failure.
std::string read_file(const std::string& path, std::string& text);

/// Creates a directory and its missing parents (these with mode 0755). A directory that already exists must belong to
/// this user and be writable by nobody else.
std::string ensure_directory(const std::string& path, mode_t mode);

/// Writes a new file of mode 0600. Replaces a file or symbolic link of that name.
std::string write_new_file(const std::string& path, std::string_view text);

/// Replaces a file in one step: a reader sees the old text or the new one.
std::string replace_file(const std::string& path, std::string_view text);

/// Moves a file over another.
std::string move_file(const std::string& from, const std::string& to);

bool is_readable_file(const std::string& path);

/// Whether a regular file belongs to root or to this user and is writable by nobody else, so that it is safe to run or
/// load on everyone's behalf.
bool is_trusted_file(const std::string& path);

/// Gives a line that identifies a file: its name, inode, size and times. A package upgrade that keeps the size and
/// modification time still changes the inode or the change time.
std::string identify_file(const std::string& path, std::string& identity);

/// The names of one server's translations. A new text is first a candidate and replaces the current one only after sshd
/// has accepted it; so the current one is the last good one.
struct translation_files {
    std::string current;
    std::string candidate;  ///< private to this process
    std::string refused;    ///< the last candidate that sshd did not accept, kept for the operator
};

/// Derives the names from the server file, so that different files never share a name: from its last component for a
/// file of the agent, from the whole path for any other.
translation_files translation_files_of(const std::string& state_directory, const std::string& agent_directory,
                                       const std::string& server_file);

}  // namespace openssh

#endif
