#include "linux/local_directives/local_files.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "common/files.h"

namespace {

constexpr char local_folder[] = "/etc/ssh_cfg_agent/sshd.d";
constexpr std::string_view local_suffix = ".conf";
constexpr std::string_view place_comment = "# local: ";  ///< of the launcher
constexpr size_t local_file_max = size_t{64} * 1024;
constexpr size_t vrf_name_max = 255;

bool is_name_character(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.';
}

std::string_view without_indent(std::string_view line) {
    return line.substr(std::min(line.find_first_not_of(' '), line.size()));
}

}  // namespace

bool local_file_name_is_valid(std::string_view name) {
    return !name.empty() && name.size() + local_suffix.size() <= vrf_name_max && name[0] != '-' && name[0] != '.' &&
           std::all_of(name.begin(), name.end(), is_name_character);
}

std::string local_file_path_of(std::string_view name) {
    return std::string(local_folder) + "/" + std::string(name) + std::string(local_suffix);
}

platform_status local_file_read(std::string_view name, std::string& text) {
    const platform_status status = file_read(local_file_path_of(name), local_file_max, text, file_links::refused);
    if (status == ENOENT) {
        text.clear();
        return PLATFORM_OK;
    }
    return status;
}

platform_status local_file_replace(std::string_view name, const std::string& text) {
    const std::string path = local_file_path_of(name);
    if (text.empty()) {
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            return static_cast<platform_status>(errno);
        }
        return file_sync_folder(local_folder);
    }
    if (mkdir(local_folder, 0755) != 0 && errno != EEXIST) {
        return static_cast<platform_status>(errno);
    }
    return file_replace(path, text, {.mode = 0644, .durable = true});
}

std::vector<std::string> local_file_vrfs() {
    std::vector<std::string> vrfs;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(local_folder), closedir);
    while (const dirent* entry = folder != nullptr ? readdir(folder.get()) : nullptr) {
        const std::string_view file = entry->d_name;
        const std::string_view name = file.substr(0, file.size() - std::min(file.size(), local_suffix.size()));
        if (file.ends_with(local_suffix) && local_file_name_is_valid(name) && name != local_file_of_all) {
            vrfs.emplace_back(name);
        }
    }
    std::sort(vrfs.begin(), vrfs.end());
    return vrfs;
}

std::vector<local_directive> local_directives_in(std::string_view translated_text) {
    std::vector<local_directive> directives;
    std::string_view place;
    while (!translated_text.empty()) {
        const std::string_view line = translated_text.substr(0, translated_text.find('\n'));
        translated_text.remove_prefix(std::min(translated_text.size(), line.size() + 1));
        if (without_indent(line).starts_with(place_comment)) {
            place = without_indent(line).substr(place_comment.size());
        } else if (!place.empty()) {
            directives.push_back({std::string(place), std::string(line)});
            place = {};
        }
    }
    return directives;
}
