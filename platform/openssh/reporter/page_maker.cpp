#include "openssh/reporter/page_maker.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>

namespace openssh {

namespace {

constexpr mode_t folder_mode = 0700;
constexpr mode_t file_mode = 0600;

/// Allocates a file's memory. Without this, writing to a page would kill the process if the file system is full. The
/// limit is checked first because an allocation beyond the maximum file size would kill it too.
int allocate(int file, size_t size) {
    rlimit limit = {};
    if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur < size) {
        return EFBIG;
    }
    return fallocate(file, 0, 0, static_cast<off_t>(size)) == 0 ? 0 : errno;
}

session_page* map_page(int file, size_t offset) {
    void* place = mmap(nullptr, session_page_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file,
                       static_cast<off_t>(offset));
    return place == MAP_FAILED ? nullptr : static_cast<session_page*>(place);
}

void unmap_page(session_page*& page) {
    if (page != nullptr) {
        munmap(page, session_page_size);
        page = nullptr;
    }
}

/// Opens a file without a name. The folder does not exist yet if the responder has never run.
int open_nameless(const char* folder) {
    constexpr int flags = O_TMPFILE | O_RDWR | O_CLOEXEC;
    const int file = open(folder, flags, file_mode);
    if (file < 0 && errno == ENOENT && mkdir(folder, folder_mode) == 0) {
        return open(folder, flags, file_mode);
    }
    return file;
}

/// Returns 0 or an errno value.
int write_path(char (&path)[PATH_MAX], const char* folder, const session_facts& facts) {
    const int length = snprintf(path, sizeof(path), "%s/%d.%llu", folder, facts.pid,
                                static_cast<unsigned long long>(facts.start_time));
    return length >= 0 && static_cast<size_t>(length) < sizeof(path) ? 0 : ENAMETOOLONG;
}

/// Gives the file its name. An existing file with this name was left by an earlier process with the same pid and start
/// time, before the last boot, as can happen in a container.
int publish(int file, const char* folder, const session_facts& facts) {
    char path[PATH_MAX];
    char source[64];
    if (const int error = write_path(path, folder, facts); error != 0) {
        return error;
    }
    snprintf(source, sizeof(source), "/proc/self/fd/%d", file);
    int result = linkat(AT_FDCWD, source, AT_FDCWD, path, AT_SYMLINK_FOLLOW);
    if (result != 0 && errno == EEXIST && unlink(path) == 0) {
        result = linkat(AT_FDCWD, source, AT_FDCWD, path, AT_SYMLINK_FOLLOW);
    }
    return result == 0 ? 0 : errno;
}

int map_server_pages(int file, server_pages& pages) {
    pages.monitors = map_page(file, monitors_page);
    pages.reported = map_page(file, reported_page);
    if (pages.monitors == nullptr || pages.reported == nullptr ||
        madvise(pages.monitors, session_page_size, MADV_DONTFORK) != 0) {
        return errno;
    }
    return 0;
}

int make_pages(int file, const char* folder, const session_facts& facts, server_pages& pages) {
    int error = allocate(file, server_file_size);
    if (error == 0) {
        error = map_server_pages(file, pages);
    }
    if (error == 0) {
        write_page(*pages.monitors, facts);
        error = publish(file, folder, facts);
    }
    if (error != 0) {
        unmap_page(pages.monitors);
        unmap_page(pages.reported);
    }
    return error;
}

int open_client_file() {
    const int low = memfd_create("ssh_csm_session", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    const int high = low < 0 ? -1 : fcntl(low, F_DUPFD_CLOEXEC, first_page_descriptor);
    if (low >= 0) {
        close(low);
    }
    if (high >= first_page_descriptor + page_descriptors) {
        close(high);
        errno = EMFILE;
        return -1;
    }
    return high;
}

}  // namespace

int make_server_pages(const char* folder, const session_facts& facts, server_pages& pages) noexcept {
    const int file = open_nameless(folder);
    if (file < 0) {
        return errno;
    }
    const int error = make_pages(file, folder, facts, pages);
    close(file);
    return error;
}

void remove_server_file(const char* folder, const session_facts& facts) noexcept {
    char path[PATH_MAX];
    if (write_path(path, folder, facts) == 0) {
        unlink(path);
    }
}

int make_client_page(session_page*& page) noexcept {
    const int file = open_client_file();
    if (file < 0) {
        return errno;
    }
    int error = allocate(file, session_page_size);
    if (error == 0) {
        page = map_page(file, 0);
        error = page == nullptr || fcntl(file, F_ADD_SEALS, client_page_seals) != 0 ? errno : 0;
    }
    if (error != 0) {
        unmap_page(page);
        close(file);
    }
    return error;
}

}  // namespace openssh
