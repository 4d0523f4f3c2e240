/// A file descriptor that is closed at the end of its scope.
#ifndef PLATFORM_COMMON_FILE_DESCRIPTOR_H
#define PLATFORM_COMMON_FILE_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

class file_descriptor {
  public:
    /// Takes ownership of `fd`. A negative one, as returned by a failed call, is never closed.
    explicit file_descriptor(int fd) : fd(fd) {}
    ~file_descriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }
    file_descriptor(const file_descriptor&) = delete;
    file_descriptor& operator=(const file_descriptor&) = delete;

    int get() const { return fd; }

    /// Gives up ownership.
    int release() { return std::exchange(fd, -1); }

  private:
    int fd;
};

#endif
