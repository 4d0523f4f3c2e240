/// A file descriptor, closed at the end of its scope.
#ifndef PLATFORM_COMMON_FILE_DESCRIPTOR_H
#define PLATFORM_COMMON_FILE_DESCRIPTOR_H

#include <unistd.h>

class file_descriptor {
  public:
    /// Owns `fd` from now on; a negative one, as a failed call gives it, is nothing to close.
    explicit file_descriptor(int fd) : fd(fd) {}
    ~file_descriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }
    file_descriptor(const file_descriptor&) = delete;
    file_descriptor& operator=(const file_descriptor&) = delete;

    int get() const { return fd; }

  private:
    int fd;
};

#endif
