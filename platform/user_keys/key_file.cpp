#include "user_keys/key_file.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "common/files.h"
#include "user_keys/key_record.h"

namespace {

constexpr mode_t directory_mode = 0700;
constexpr mode_t file_mode = 0600;
constexpr size_t file_size_max = authorized_keys_max * (authorized_key_line_max + 1);

/// Never a user's file, because user names do not begin with '.'.
constexpr char temporary_name[] = ".new";

std::string path_of(std::string_view name) {
    return std::string(key_file_directory).append("/").append(name);
}

platform_status last_error() {
    return static_cast<platform_status>(errno);
}

}  // namespace

platform_status key_file_write(std::string_view user, std::string_view lines) {
    if (mkdir(key_file_directory, directory_mode) != 0 && errno != EEXIST) {
        return last_error();
    }
    return file_replace(path_of(user), lines, {.mode = file_mode, .durable = true}, path_of(temporary_name));
}

platform_status key_file_remove(std::string_view user) {
    if (unlink(path_of(user).c_str()) != 0) {
        return errno == ENOENT ? platform_status{PLATFORM_OK} : last_error();
    }
    return file_sync_folder(key_file_directory);
}

platform_status key_file_read(std::string_view user, std::string& lines) {
    const platform_status status = file_read(path_of(user), file_size_max, lines, file_links::refused);
    if (status != ENOENT) {
        return status;
    }
    lines.clear();
    return PLATFORM_OK;
}

platform_status key_file_list(std::vector<std::string>& users) {
    DIR* directory = opendir(key_file_directory);
    if (directory == nullptr) {
        return errno == ENOENT ? platform_status{PLATFORM_OK} : last_error();
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> owner(directory, closedir);
    for (const dirent* entry = readdir(directory); entry != nullptr; entry = readdir(directory)) {
        if (key_user_is_valid(entry->d_name)) {
            users.emplace_back(entry->d_name);
        }
    }
    return PLATFORM_OK;
}
