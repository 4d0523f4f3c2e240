#include "common/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "common/file_descriptor.h"

namespace {

platform_status last_error() {
    return static_cast<platform_status>(errno);
}

platform_status write_all(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t count = write(fd, content.data(), content.size());
        if (count < 0 && errno != EINTR) {
            return last_error();
        }
        content.remove_prefix(count < 0 ? 0 : static_cast<size_t>(count));
    }
    return PLATFORM_OK;
}

platform_status fill(int fd, std::string_view content, const new_file& made) {
    if (fchmod(fd, made.mode) != 0) {
        return last_error();
    }
    const platform_status status = write_all(fd, content);
    if (status == PLATFORM_OK && made.durable && fsync(fd) != 0) {
        return last_error();
    }
    return status;
}

/// Writes and closes the file; its name in the folder is not durable yet.
platform_status write_file(const std::string& path, std::string_view content, const new_file& made) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        return last_error();
    }
    // Others get no access until the file has its mode.
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600 & made.mode);
    if (fd < 0) {
        return last_error();
    }
    platform_status status = fill(fd, content, made);
    // Some file systems report a full disk only here. Linux has closed the descriptor even after EINTR.
    if (close(fd) != 0 && errno != EINTR && status == PLATFORM_OK) {
        status = last_error();
    }
    if (status != PLATFORM_OK) {
        unlink(path.c_str());
    }
    return status;
}

}  // namespace

platform_status file_read_to_end(int fd, size_t size_max, std::string& content) {
    constexpr size_t piece = 16384;
    std::string bytes;
    for (;;) {
        const size_t size = bytes.size();
        bytes.resize(size + piece);
        const ssize_t count = read(fd, bytes.data() + size, piece);
        if (count < 0 && errno != EINTR) {
            return last_error();
        }
        bytes.resize(size + (count < 0 ? 0 : static_cast<size_t>(count)));
        if (bytes.size() > size_max) {
            return EFBIG;
        }
        if (count == 0) {
            content = std::move(bytes);
            return PLATFORM_OK;
        }
    }
}

platform_status file_read_regular(int fd, size_t size_max, std::string& content) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return last_error();
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    return file_read_to_end(fd, size_max, content);
}

platform_status file_read(const std::string& path, size_t size_max, std::string& content, file_links links) {
    // Without O_NONBLOCK, merely opening a pipe in the file's place would block.
    const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | (links == file_links::refused ? O_NOFOLLOW : 0);
    const file_descriptor file(open(path.c_str(), flags));
    return file.get() < 0 ? last_error() : file_read_regular(file.get(), size_max, content);
}

platform_status file_write_new(const std::string& path, std::string_view content, const new_file& made) {
    platform_status status = write_file(path, content, made);
    if (status == PLATFORM_OK && made.durable) {
        status = file_sync_folder(file_folder(path));
        if (status != PLATFORM_OK) {
            unlink(path.c_str());
        }
    }
    return status;
}

platform_status file_replace(const std::string& path, std::string_view content, const new_file& made,
                             std::string temporary) {
    if (temporary.empty()) {
        temporary = path + ".new";
    }
    // Comes before any change, because it may run out of memory.
    const std::string folder = file_folder(path);
    if (const platform_status status = write_file(temporary, content, made); status != PLATFORM_OK) {
        return status;
    }
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        const platform_status status = last_error();
        unlink(temporary.c_str());
        return status;
    }
    return made.durable ? file_sync_folder(folder) : platform_status{PLATFORM_OK};
}

platform_status file_sync_folder(const std::string& folder) {
    const file_descriptor fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.get() >= 0 && fsync(fd.get()) == 0 ? platform_status{PLATFORM_OK} : last_error();
}

std::string file_folder(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}
