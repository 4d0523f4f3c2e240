#include "user_keys/key_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "common/file_descriptor.h"
#include "user_keys/key_record.h"

namespace {

constexpr mode_t directory_mode = 0700;
constexpr mode_t file_mode = 0600;
constexpr size_t file_size_max = 4096;  ///< the largest key takes about 1,400 bytes

/// Never a user's file, because user names do not begin with '.'.
constexpr char temporary_name[] = ".new";

int open_directory() {
    return open(key_file_directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

platform_status last_error() {
    return static_cast<platform_status>(errno);
}

platform_status write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return last_error();
        }
        bytes.remove_prefix(count < 0 ? 0 : static_cast<size_t>(count));
    }
    return fsync(fd) == 0 ? PLATFORM_OK : last_error();
}

platform_status write_new(int directory, std::string_view line) {
    const file_descriptor file(
        openat(directory, temporary_name, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, file_mode));
    return file.get() < 0 ? last_error() : write_all(file.get(), line);
}

platform_status read_all(int fd, std::string& bytes) {
    std::string read_bytes(file_size_max + 1, '\0');
    size_t size = 0;
    ssize_t count = 1;
    while (count != 0 && size < read_bytes.size()) {
        count = read(fd, read_bytes.data() + size, read_bytes.size() - size);
        if (count < 0 && errno != EINTR) {
            return last_error();
        }
        size += count < 0 ? 0 : static_cast<size_t>(count);
    }
    if (size > file_size_max) {
        return EFBIG;
    }
    read_bytes.resize(size);
    bytes = std::move(read_bytes);
    return PLATFORM_OK;
}

}  // namespace

platform_status key_file_write(std::string_view user, std::string_view line) {
    if (mkdir(key_file_directory, directory_mode) != 0 && errno != EEXIST) {
        return last_error();
    }
    const file_descriptor directory(open_directory());
    if (directory.get() < 0) {
        return last_error();
    }
    platform_status status = write_new(directory.get(), line);
    if (status == PLATFORM_OK &&
        renameat(directory.get(), temporary_name, directory.get(), std::string(user).c_str()) != 0) {
        status = last_error();
    }
    if (status != PLATFORM_OK) {
        unlinkat(directory.get(), temporary_name, 0);
        return status;
    }
    return fsync(directory.get()) == 0 ? PLATFORM_OK : last_error();
}

platform_status key_file_remove(std::string_view user) {
    const file_descriptor directory(open_directory());
    if (directory.get() < 0) {
        return errno == ENOENT ? platform_status{PLATFORM_OK} : last_error();
    }
    if (unlinkat(directory.get(), std::string(user).c_str(), 0) != 0) {
        return errno == ENOENT ? platform_status{PLATFORM_OK} : last_error();
    }
    return fsync(directory.get()) == 0 ? PLATFORM_OK : last_error();
}

platform_status key_file_read(std::string_view user, std::string& line) {
    const std::string path = std::string(key_file_directory) + '/' + std::string(user);
    const file_descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() >= 0) {
        return read_all(file.get(), line);
    }
    if (errno != ENOENT) {
        return last_error();
    }
    line.clear();
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
