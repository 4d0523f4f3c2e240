#include "openssh/sftp_server.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/files.h"
#include "common/text.h"

namespace openssh {

namespace {

constexpr size_t largest_program = size_t{16} * 1024 * 1024;
constexpr mode_t execute_only = 0711;

bool is_current(const struct stat& copy, const struct stat& original) {
    return S_ISREG(copy.st_mode) && copy.st_uid == geteuid() && (copy.st_mode & 07777) == execute_only &&
           copy.st_size == original.st_size && copy.st_mtim.tv_sec == original.st_mtim.tv_sec &&
           copy.st_mtim.tv_nsec == original.st_mtim.tv_nsec;
}

/// The copy has the original's time, by which it is recognised as current.
platform_status copy_program(const launcher_paths& paths, const struct stat& original) {
    std::string program;
    // Servers that start at the same time do not share the temporary file.
    const std::string temporary = text_format("%s.%d", paths.sftp_server.c_str(), static_cast<int>(getpid()));
    platform_status status = file_read(paths.stock_sftp_server, largest_program, program);
    if (status == PLATFORM_OK) {
        status = file_write_new(temporary, program, {.mode = execute_only});
    }
    const timespec times[] = {original.st_atim, original.st_mtim};
    if (status == PLATFORM_OK && (utimensat(AT_FDCWD, temporary.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0 ||
                                  rename(temporary.c_str(), paths.sftp_server.c_str()) != 0)) {
        status = static_cast<platform_status>(errno);
        unlink(temporary.c_str());
    }
    return status;
}

}  // namespace

std::string renew_sftp_server(const launcher_paths& paths) {
    struct stat original;
    struct stat copy;
    if (stat(paths.stock_sftp_server.c_str(), &original) != 0) {
        return text_format("%s: %s", paths.stock_sftp_server.c_str(), std::strerror(errno));
    }
    if (lstat(paths.sftp_server.c_str(), &copy) == 0 && is_current(copy, original)) {
        return {};
    }
    const platform_status status = copy_program(paths, original);
    return status == PLATFORM_OK ? std::string()
                                 : text_format("cannot copy %s to %s: %s", paths.stock_sftp_server.c_str(),
                                               paths.sftp_server.c_str(), std::strerror(static_cast<int>(status)));
}

}  // namespace openssh
