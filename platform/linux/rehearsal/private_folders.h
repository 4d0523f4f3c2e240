/// The folders that the agent writes to, as a rehearsal sees them: private copies in memory.
///
/// A private folder has copies of the files that the agent may change and links to everything else.
#ifndef LINUX_REHEARSAL_PRIVATE_FOLDERS_H
#define LINUX_REHEARSAL_PRIVATE_FOLDERS_H

#include <array>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "linux/datastore/rehearsal.h"

struct private_folder_row {
    const char* path;
    /// Prefixes of the names of files that are copied; "" for all, null for an unused place. Only regular files are.
    std::array<const char*, 2> copied;
    /// Prefixes of the names of other entries that are there as well, as links to the machine's.
    std::array<const char*, 2> linked;
    bool is_mounted = true;  ///< false for a folder below another private one that the agent itself makes
    bool is_told = false;    ///< its files concern operators
};

/// Every folder that the agent writes to while it carries out a commit, outer folders first.
std::span<const private_folder_row> private_folder_rows();

/// A file that was changed in a private folder.
struct private_change {
    rehearsed_file file;
    std::optional<std::string> before;  ///< its content on the machine; nothing if it was created
    std::optional<std::string> after;   ///< nothing if it was deleted
};

class private_folders {
  public:
    /// Opens the machine's folders. To be called before they are covered.
    explicit private_folders(std::span<const private_folder_row> rows);

    /// Covers the folders by their private copies, after making everything else read-only. The process needs a mount
    /// namespace of its own. Returns what failed, or an empty text.
    std::string mount();

    /// The changes in folders that concern operators, in byte order of the paths. Throws std::bad_alloc, and
    /// std::system_error for what cannot be read.
    std::vector<private_change> changes() const;

    /// The machine's content of a file in one of the folders; nothing if there is none.
    std::optional<std::string> machine_content(const std::string& path) const;

  private:
    struct folder {
        const private_folder_row* row;
        file_descriptor machine;  ///< invalid if the machine has no such folder

        folder(const private_folder_row& described, int fd) : row(&described), machine(fd) {}
    };

    std::string mount_one(const folder& one, size_t number) const;
    void add_changes(const folder& one, std::map<std::string, private_change>& changes) const;

    std::deque<folder> folders_;
};

#endif
