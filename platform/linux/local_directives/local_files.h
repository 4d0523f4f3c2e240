/// The files with local directives: settings that an administrator adds to the servers' files.
#ifndef LINUX_LOCAL_DIRECTIVES_LOCAL_FILES_H
#define LINUX_LOCAL_DIRECTIVES_LOCAL_FILES_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/status.h"

/// The name under which the file of all VRFs is known.
inline constexpr char local_file_of_all[] = "all";

/// Whether there can be a file of this name: "all", or a VRF.
bool local_file_name_is_valid(std::string_view name);

/// Returns the path of the file of a VRF, or of all VRFs.
std::string local_file_path_of(std::string_view name);

/// Reads a file; a file that does not exist is empty. Symbolic links are refused with ELOOP.
platform_status local_file_read(std::string_view name, std::string& text);

/// Replaces a file in one step, readable by everybody; removes it if the text is empty.
platform_status local_file_replace(std::string_view name, const std::string& text);

/// Returns the VRFs that have a file of their own, in byte order.
std::vector<std::string> local_file_vrfs();

/// A directive in a running server's file.
struct local_directive {
    std::string place;  ///< "FILE, line N"
    std::string text;
};

/// Returns the local directives in a translated server file.
std::vector<local_directive> local_directives_in(std::string_view translated_text);

#endif
