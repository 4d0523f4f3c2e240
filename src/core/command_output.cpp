#include "core/command_output.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

FILE* read_shell_command(const char* command, const command_limit& limit) {
    const int output = memfd_create("command output", MFD_CLOEXEC);
    if (output < 0) {
        return nullptr;
    }
    FILE* stream = nullptr;
    if (run_shell_command(command, limit, output) != -1 && lseek(output, 0, SEEK_SET) == 0) {
        stream = fdopen(output, "r");
    }
    if (stream == nullptr) {
        const int error = errno;
        close(output);
        errno = error;
    }
    return stream;
}
