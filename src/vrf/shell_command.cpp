#include "vrf/shell_command.h"

#include <cerrno>
#include <cstdlib>

bool shell_command_failed(const char* command, int* status) {
    const int result = std::system(command);
    if (status != nullptr) {
        *status = result;
    }
    return result != 0 && errno != 0;
}
