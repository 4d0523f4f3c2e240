#include "openssh/wrapper/session_command.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace openssh {

namespace {

/// The start of the file. It is followed by the path, the arguments and the environment, each NUL-terminated.
struct file_head {
    uint32_t argument_count;
    uint32_t environment_count;
};

/// Larger than any argument list execve() accepts.
constexpr size_t largest_command = size_t{8} * 1024 * 1024;

/// The value of a variable; null if there is none.
const char* variable(char* const* environment, const char* name) {
    const size_t length = strlen(name);
    for (; *environment != nullptr; ++environment) {
        if (strncmp(*environment, name, length) == 0 && (*environment)[length] == '=') {
            return *environment + length + 1;
        }
    }
    return nullptr;
}

uint32_t count_of(char* const* strings) {
    uint32_t count = 0;
    while (strings[count] != nullptr) {
        ++count;
    }
    return count;
}

bool write_all(int fd, const void* data, size_t length) {
    const char* rest = static_cast<const char*>(data);
    while (length != 0) {
        const ssize_t written = write(fd, rest, length);
        if (written >= 0) {
            rest += written;
            length -= static_cast<size_t>(written);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool write_string(int fd, const char* string) {
    return write_all(fd, string, strlen(string) + 1);
}

bool write_strings(int fd, char* const* strings) {
    for (; *strings != nullptr; ++strings) {
        if (!write_string(fd, *strings)) {
            return false;
        }
    }
    return true;
}

/// Reads the whole file into a new, NUL-terminated block; null with errno set on failure.
char* read_file(int fd, size_t& length) {
    struct stat status;
    if (fstat(fd, &status) != 0) {
        return nullptr;
    }
    if (status.st_size < static_cast<off_t>(sizeof(file_head)) ||
        status.st_size > static_cast<off_t>(largest_command)) {
        errno = EBADMSG;
        return nullptr;
    }
    length = static_cast<size_t>(status.st_size);
    char* block = static_cast<char*>(malloc(length + 1));
    size_t done = 0;
    while (block != nullptr && done != length) {
        const ssize_t read_now = pread(fd, block + done, length - done, static_cast<off_t>(done));
        if (read_now <= 0 && !(read_now < 0 && errno == EINTR)) {
            free(block);
            errno = read_now == 0 ? EBADMSG : errno;
            return nullptr;
        }
        done += read_now > 0 ? static_cast<size_t>(read_now) : 0;
    }
    if (block != nullptr) {
        block[length] = '\0';
    }
    return block;
}

/// Reads consecutive strings from a NUL-terminated block.
struct string_reader {
    char* next;
    char* end;

    char* take() {
        if (next >= end) {
            return nullptr;
        }
        char* string = next;
        next += strlen(next) + 1;
        return string;
    }

    bool take_all(char** strings, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            strings[i] = take();
            if (strings[i] == nullptr) {
                return false;
            }
        }
        strings[count] = nullptr;
        return true;
    }
};

}  // namespace

bool is_session_command(const char* path, char* const* arguments, char* const* environment) {
    if (path == nullptr || arguments == nullptr || arguments[0] == nullptr || environment == nullptr) {
        return false;
    }
    const char* slash = strrchr(path, '/');
    const char* name = slash == nullptr ? path : slash + 1;
    const bool is_login_shell =
        arguments[0][0] == '-' && strcmp(arguments[0] + 1, name) == 0 && arguments[1] == nullptr;
    const bool is_command = strcmp(arguments[0], name) == 0 && arguments[1] != nullptr &&
                            strcmp(arguments[1], "-c") == 0 && arguments[2] != nullptr && arguments[3] == nullptr;
    return (is_login_shell || is_command) && variable(environment, "SSH_CLIENT") != nullptr;
}

bool is_on_netconf_port(char* const* environment) {
    // Addresses and ports of client and server.
    const char* connection = variable(environment, "SSH_CONNECTION");
    const char* blank = connection == nullptr ? nullptr : strrchr(connection, ' ');
    return blank != nullptr && strcmp(blank + 1, netconf_port) == 0;
}

bool is_netconf_command(char* const* arguments) {
    return arguments[1] != nullptr && arguments[2] != nullptr && strcmp(arguments[2], netconf_command) == 0;
}

int write_session_command(const char* path, char* const* arguments, char* const* environment) {
    const int fd = memfd_create("session", MFD_ALLOW_SEALING);
    if (fd < 0) {
        return -1;
    }
    const file_head head = {count_of(arguments), count_of(environment)};
    if (write_all(fd, &head, sizeof head) && write_string(fd, path) && write_strings(fd, arguments) &&
        write_strings(fd, environment) &&
        fcntl(fd, F_ADD_SEALS, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) == 0) {
        return fd;
    }
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

bool read_session_command(int fd, session_command& command) {
    size_t length = 0;
    char* block = read_file(fd, length);
    if (block == nullptr) {
        return false;
    }
    file_head head;
    memcpy(&head, block, sizeof head);
    string_reader reader = {block + sizeof head, block + length};
    if (head.argument_count <= length && head.environment_count <= length) {
        char** strings =
            static_cast<char**>(calloc(size_t{head.argument_count} + head.environment_count + 2, sizeof(char*)));
        if (strings == nullptr) {
            free(block);
            return false;
        }
        const session_command whole = {reader.take(), strings, strings + head.argument_count + 1};
        if (whole.path != nullptr && head.argument_count != 0 &&
            reader.take_all(whole.arguments, head.argument_count) &&
            reader.take_all(whole.environment, head.environment_count) && reader.next == reader.end) {
            command = whole;
            return true;
        }
        free(strings);
    }
    free(block);
    errno = EBADMSG;
    return false;
}

}  // namespace openssh
