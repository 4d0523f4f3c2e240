#include "openssh/state_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "openssh/text.h"

namespace openssh {

namespace {

/// Tells of errno; to be called before anything can change it.
std::string failure(const char* what, const std::string& path) {
    const int error = errno;
    return format_text("cannot %s %s: %s", what, shown(path).c_str(), std::strerror(error));
}

bool read_all(int fd, std::string& text) {
    char buffer[16384];
    for (;;) {
        const ssize_t length = read(fd, buffer, sizeof buffer);
        if (length == 0) {
            return true;
        }
        if (length > 0) {
            text.append(buffer, static_cast<size_t>(length));
        }
        if (text.size() > largest_file) {
            errno = EFBIG;
            return false;
        }
        if (length < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t length = write(fd, text.data(), text.size());
        if (length >= 0) {
            text.remove_prefix(static_cast<size_t>(length));
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

/// A file name's part that stands for a path: every path has its own, and none holds '~', which sets the suffixes off.
std::string escaped(std::string_view path) {
    std::string name;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 || c == '_' || c == '-' || c == '.') {
            name += c;
        } else {
            name += c == '/' ? std::string("+") : format_text("%%%02X", byte);
        }
    }
    return name;
}

}  // namespace

std::string read_file(const std::string& path, std::string& text) {
    // Without O_NONBLOCK a pipe in the file's place would hold the server up for ever.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return failure("open", path);
    }
    struct stat status;
    std::string content;
    std::string error;
    if (fstat(fd, &status) == 0 && !S_ISREG(status.st_mode)) {
        error = format_text("%s is not a regular file", shown(path).c_str());
    } else if (!read_all(fd, content)) {
        error = failure("read", path);
    }
    close(fd);
    if (error.empty()) {
        text = std::move(content);
    }
    return error;
}

std::string ensure_directory(const std::string& path, mode_t mode) {
    const size_t parent_end = path.find_last_of('/');
    if (parent_end != std::string::npos && parent_end != 0) {
        const std::string parent = path.substr(0, parent_end);
        if (access(parent.c_str(), F_OK) != 0) {
            std::string error = ensure_directory(parent, 0755);
            if (!error.empty()) {
                return error;
            }
        }
    }
    if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) {
        return failure("create the directory", path);
    }
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        return failure("examine the directory", path);
    }
    if (!S_ISDIR(status.st_mode)) {
        return format_text("%s is not a directory", shown(path).c_str());
    }
    if (status.st_uid != geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return format_text("%s is owned by another user or writable by others", shown(path).c_str());
    }
    return {};
}

std::string write_new_file(const std::string& path, std::string_view text) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        return failure("remove", path);
    }
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return failure("create", path);
    }
    std::string error = write_all(fd, text) ? std::string() : failure("write", path);
    if (close(fd) != 0 && error.empty()) {
        error = failure("write", path);
    }
    if (!error.empty()) {
        unlink(path.c_str());
    }
    return error;
}

std::string replace_file(const std::string& path, std::string_view text) {
    const std::string temporary = format_text("%s~new.%d", path.c_str(), static_cast<int>(getpid()));
    std::string error = write_new_file(temporary, text);
    if (error.empty()) {
        error = move_file(temporary, path);
        if (!error.empty()) {
            unlink(temporary.c_str());
        }
    }
    return error;
}

std::string move_file(const std::string& from, const std::string& to) {
    return rename(from.c_str(), to.c_str()) == 0 ? std::string() : failure("rename a file to", to);
}

bool is_readable_file(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), R_OK) == 0;
}

bool is_trusted_file(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           (status.st_uid == 0 || status.st_uid == geteuid()) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

translation_files translation_files_of(const std::string& state_directory, const std::string& agent_directory,
                                       const std::string& server_file) {
    std::string_view named_after = server_file;
    if (named_after.starts_with(agent_directory) &&
        named_after.find('/', agent_directory.size()) == std::string_view::npos) {
        named_after.remove_prefix(agent_directory.size());
    }
    const std::string current = state_directory + "/" + escaped(named_after);
    return {current, format_text("%s~candidate.%d", current.c_str(), static_cast<int>(getpid())), current + "~refused"};
}

}  // namespace openssh
