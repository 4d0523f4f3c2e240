#include "openssh/state_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/file_descriptor.h"
#include "common/files.h"
#include "common/text.h"
#include "openssh/text.h"

namespace openssh {

namespace {

std::string failure(const char* what, const std::string& path, platform_status status) {
    return text_format("cannot %s %s: %s", what, shown(path).c_str(), std::strerror(static_cast<int>(status)));
}

std::string result_of(const char* what, const std::string& path, platform_status status) {
    return status == PLATFORM_OK ? std::string() : failure(what, path, status);
}

/// Describes errno; call it before anything can change errno.
std::string failure(const char* what, const std::string& path) {
    return failure(what, path, static_cast<platform_status>(errno));
}

/// Encodes a path as part of a file name: each path has its own encoding, and none contains '~', which separates the
/// suffixes.
std::string escaped(std::string_view path) {
    std::string name;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 || c == '_' || c == '-' || c == '.') {
            name += c;
        } else {
            name += c == '/' ? std::string("+") : text_format("%%%02X", byte);
        }
    }
    return name;
}

}  // namespace

std::string read_file(const std::string& path, std::string& text) {
    const file_descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0) {
        return failure("open", path);
    }
    const platform_status status = file_read_regular(file.get(), largest_file, text);
    if (status == EISDIR || status == EINVAL) {
        return text_format("%s is not a regular file", shown(path).c_str());
    }
    return result_of("read", path, status);
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
        return text_format("%s is not a directory", shown(path).c_str());
    }
    if (status.st_uid != geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return text_format("%s is owned by another user or writable by others", shown(path).c_str());
    }
    return {};
}

std::string write_new_file(const std::string& path, std::string_view text) {
    return result_of("write", path, file_write_new(path, text, {}));
}

std::string replace_file(const std::string& path, std::string_view text) {
    // Several launchers may replace one file at the same time.
    const std::string temporary = text_format("%s~new.%d", path.c_str(), static_cast<int>(getpid()));
    return result_of("write", path, file_replace(path, text, {}, temporary));
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

std::string identify_file(const std::string& path, std::string& identity) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        return failure("examine", path);
    }
    identity = text_format("%s size %lld inode %llu modified %lld.%09ld changed %lld.%09ld", shown(path).c_str(),
                           static_cast<long long>(status.st_size), static_cast<unsigned long long>(status.st_ino),
                           static_cast<long long>(status.st_mtim.tv_sec), status.st_mtim.tv_nsec,
                           static_cast<long long>(status.st_ctim.tv_sec), status.st_ctim.tv_nsec);
    return {};
}

translation_files translation_files_of(const std::string& state_directory, const std::string& agent_directory,
                                       const std::string& server_file) {
    std::string_view named_after = server_file;
    if (named_after.starts_with(agent_directory) &&
        named_after.find('/', agent_directory.size()) == std::string_view::npos) {
        named_after.remove_prefix(agent_directory.size());
    }
    const std::string current = state_directory + "/" + escaped(named_after);
    return {current, text_format("%s~candidate.%d", current.c_str(), static_cast<int>(getpid())), current + "~refused"};
}

}  // namespace openssh
