#include "platform/file_system_list.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <exception>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "linux/reporting/log_message_internal.h"

namespace {

/// The publisher of the list has 1023 characters for the names, each followed by a blank.
constexpr size_t text_size_max = 1023;

/// Types that are kept on stable storage although they have no block device.
constexpr std::array<std::string_view, 9> persistent_types = {"nfs", "nfs4",  "zfs",      "cifs",    "smb3",
                                                              "9p",  "ubifs", "virtiofs", "bcachefs"};

/// Package images: on a block device, but not meant for storing anything.
constexpr std::array<std::string_view, 2> image_types = {"squashfs", "erofs"};

struct mount_entry {
    std::string device;       ///< "major:minor"
    std::string root;         ///< the mounted part of the file system, "/" for all of it
    std::string mount_point;  ///< blanks and the like are written as \040
    std::string type;
};

template <typename Container>
bool contains(const Container& container, std::string_view value) {
    return std::find(container.begin(), container.end(), value) != container.end();
}

/// The types of file system that need a block device. Format: proc(5), /proc/filesystems.
std::set<std::string> block_device_types() {
    std::set<std::string> types = {"fuseblk"};
    std::ifstream file("/proc/filesystems");
    std::string line;
    while (std::getline(file, line)) {
        if (!line.empty() && line.front() == '\t') {
            types.insert(line.substr(1));
        }
    }
    return types;
}

/// Format: proc(5), /proc/pid/mountinfo. Returns false for a malformed line.
bool parse_mount(const std::string& line, mount_entry& entry) {
    std::istringstream words(line);
    std::string id;
    std::string parent;
    std::string word;
    if (!(words >> id >> parent >> entry.device >> entry.root >> entry.mount_point)) {
        return false;
    }
    while (words >> word && word != "-") {
    }
    return static_cast<bool>(words >> entry.type);
}

/// The root always counts, whatever holds it, for instance an overlay.
bool is_persistent(const mount_entry& entry, const std::set<std::string>& block_types) {
    if (contains(image_types, entry.type)) {
        return false;
    }
    return entry.mount_point == "/" || contains(persistent_types, entry.type) || block_types.count(entry.type) == 1;
}

/// Each file system once, at its first whole mount. Returns false if the mounts cannot be read.
bool read_names(std::vector<std::string>& names) {
    const std::set<std::string> block_types = block_device_types();
    std::set<std::string> devices;
    size_t size = 0;
    std::ifstream file("/proc/self/mountinfo");
    if (!file.is_open()) {
        return false;
    }
    std::string line;
    while (std::getline(file, line)) {
        mount_entry entry;
        if (!parse_mount(line, entry) || (entry.root != "/" && entry.mount_point != "/") ||
            !is_persistent(entry, block_types) || !devices.insert(entry.device).second) {
            continue;
        }
        if (size + entry.mount_point.size() + 1 > text_size_max) {
            platform_log(LOG_WARNING, "The file-system list is full and ends before %s", entry.mount_point.c_str());
            break;
        }
        size += entry.mount_point.size() + 1;
        names.push_back(entry.mount_point);
    }
    return !file.bad();
}

std::vector<std::string> names;
std::vector<const char*> pointers;

}  // namespace

/// The mount points of the persistent file systems in mount order. Excludes temporary and kernel file systems, package
/// images, and further mounts of the same file system. A blank in a mount point is written as \040, because readers
/// take a blank for the end of the name.
const char* const* file_system_list_get(void) {
    try {
        names.clear();
        pointers.clear();
        if (!read_names(names)) {
            return nullptr;
        }
        std::transform(names.begin(), names.end(), std::back_inserter(pointers),
                       [](const std::string& name) { return name.c_str(); });
        pointers.push_back(nullptr);
    } catch (const std::exception&) {
        return nullptr;
    }
    return pointers.data();
}
