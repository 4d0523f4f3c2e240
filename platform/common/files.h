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

/// Reads what is left of any kind of file. EFBIG when that is more than `size_max` bytes. `content` is replaced, on failure
/// left alone.
platform_status file_read_to_end(int fd, size_t size_max, std::string& content);

/// The same for a regular file only, so that nothing can block: EISDIR for a directory, EINVAL for what is not a file
/// either.
platform_status file_read_regular(int fd, size_t size_max, std::string& content);

enum class file_links : bool { followed, refused };

/// Reads a regular file of at most `size_max` bytes, as above. A symbolic link in the last place is ELOOP when refused.
platform_status file_read(const std::string& path, size_t size_max, std::string& content,
                          file_links links = file_links::followed);

struct new_file {
    mode_t mode = 0600;    ///< exactly, whatever the umask
    bool durable = false;  ///< on the disk, with its name, when the call returns
};

/// Writes a file that was not there before: what stands at `path`, be it a link, is removed first and never written to.
/// On failure there is no file.
platform_status file_write_new(const std::string& path, std::string_view content, const new_file& made);

/// Replaces a file in one step: a reader, or whoever looks after a crash, sees the old content or the new one. The new one
/// is written to the file `temporary` first, in the same folder, by default `path` with ".new" behind it; no two processes
/// may use one at a time. On failure the old content is left and no temporary file; only when the folder of a durable one
/// cannot be synced at the end is the new content in place all the same.
platform_status file_replace(const std::string& path, std::string_view content, const new_file& made,
                             std::string temporary = {});

/// Makes renames and removals in a folder durable.
platform_status file_sync_folder(const std::string& folder);

/// The folder of a path's last part: "/a" for "/a/b", "/" for "/a", "." for "a".
std::string file_folder(const std::string& path);

#endif
