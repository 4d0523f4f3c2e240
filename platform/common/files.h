/// Whole files: read in one piece, replaced in one step.
///
/// All return 0 or an errno value, and may throw std::bad_alloc.
#ifndef PLATFORM_COMMON_FILES_H
#define PLATFORM_COMMON_FILES_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/status.h"

/// Reads the rest of any kind of file. Returns EFBIG if that exceeds `size_max` bytes. Replaces `content`, or leaves it
/// unchanged on failure.
platform_status file_read_to_end(int fd, size_t size_max, std::string& content);

/// The same for a regular file only, so that nothing can block: EISDIR for a directory, EINVAL for any other kind.
platform_status file_read_regular(int fd, size_t size_max, std::string& content);

enum class file_links : bool { followed, refused };

/// Reads a regular file of at most `size_max` bytes, as above. ELOOP if the last component is a symbolic link and links
/// are refused.
platform_status file_read(const std::string& path, size_t size_max, std::string& content,
                          file_links links = file_links::followed);

struct new_file {
    mode_t mode = 0600;    ///< exact, regardless of the umask
    bool durable = false;  ///< the file and its name are on the disk when the call returns
};

/// Writes a new file. Anything at `path`, even a symbolic link, is removed first and never written to. On failure there
/// is no file.
platform_status file_write_new(const std::string& path, std::string_view content, const new_file& made);

/// Replaces a file in one step: readers, even after a crash, see the old content or the new. The new content is first
/// written to the file `temporary` in the same folder, by default `path` with ".new" appended; two processes must not
/// use the same one at a time. On failure the old content stays and the temporary file is removed; but if the folder of
/// a durable file cannot be synced at the end, the new content is already in place.
platform_status file_replace(const std::string& path, std::string_view content, const new_file& made,
                             std::string temporary = {});

/// Makes renames and removals in a folder durable.
platform_status file_sync_folder(const std::string& folder);

/// The folder of a path's last component: "/a" for "/a/b", "/" for "/a", "." for "a".
std::string file_folder(const std::string& path);

#endif
