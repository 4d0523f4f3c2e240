#include "vrf/shell_command.h"

#include <cerrno>
#include <cstdlib>

bool shell_command_failed(const char* command) {
    return std::system(command) != 0 && errno != 0;
}
