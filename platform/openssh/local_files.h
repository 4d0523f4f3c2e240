/// The files with local directives, and copies of those that were last accepted.
#ifndef OPENSSH_LOCAL_FILES_H
#define OPENSSH_LOCAL_FILES_H

#include <string>
#include <string_view>
#include <vector>

#include "openssh/local_directives.h"

namespace openssh {

constexpr size_t largest_local_file = size_t{64} * 1024;

struct local_source {
    std::vector<local_file> files;      ///< the VRF's own first; a file that does not exist is left out
    std::vector<std::string> problems;  ///< one sentence for each file that cannot be used
};

/// The VRF of an agent's server file; empty for the default file.
std::string_view vrf_of_server_file(std::string_view server_file);

/// Returns the path of a VRF's own file; of the file for all VRFs if the VRF's name is empty.
std::string local_file_path(const std::string& directory, std::string_view vrf_name);

/// Reads a VRF's files. Whoever could write to them could admit himself, so files and folder must belong to root (or to this
/// user) and be writable by nobody else; symbolic links and special files are refused.
local_source read_local_files(const std::string& directory, std::string_view vrf_name);

/// Keeps the files as the last accepted ones of a server; none are kept if there are none. Returns the error.
std::string keep_accepted_files(const std::string& path, const std::vector<local_file>& files);

/// Reads the last accepted ones; none if there are none or the copy is damaged.
std::vector<local_file> read_accepted_files(const std::string& path);

}  // namespace openssh

#endif
