/// The launcher's files: the server file it reads, the translations it keeps, directories, atomic replacement.
///
/// The routines report a failure as a text for the operator; an empty text is success.
#ifndef OPENSSH_STATE_FILES_H
#define OPENSSH_STATE_FILES_H

#include <sys/types.h>

#include <string>
#include <string_view>

namespace openssh {

constexpr size_t largest_file = size_t{1024} * 1024;

/// Reads a regular file of at most `largest_file` bytes. `text` is untouched on failure.
std::string read_file(const std::string& path, std::string& text);

/// Makes a directory and those above it (these with mode 0755) where they are missing. One that exists must be a directory
/// of this user that nobody else can write to.
std::string ensure_directory(const std::string& path, mode_t mode);

/// Writes a new file of mode 0600. A file of that name, or the link that stands in its place, is replaced.
std::string write_new_file(const std::string& path, std::string_view text);

/// Replaces a file in one step: a reader sees the old text or the new one.
std::string replace_file(const std::string& path, std::string_view text);

/// Moves a file over another.
std::string move_file(const std::string& from, const std::string& to);

bool is_readable_file(const std::string& path);

/// Whether a regular file belongs to root or to this user and can be written by nobody else, so that it may be run, or
/// loaded, on behalf of everybody.
bool is_trusted_file(const std::string& path);

/// The names of one server's translations. A new text is first a candidate and takes the name of the current one only when
/// sshd has taken it; so the current one is the last good one.
struct translation_files {
    std::string current;
    std::string candidate;  ///< this process's own
    std::string refused;    ///< the last candidate that sshd did not take, kept for the operator
};

/// Names them after the server file, so that different files never share a name: after its last part for a file of the
/// agent, after the whole path for another.
translation_files translation_files_of(const std::string& state_directory, const std::string& agent_directory,
                                       const std::string& server_file);

}  // namespace openssh

#endif
