#include "vrf/shell_command.h"

#include <cerrno>

#include "core/shell_command.h"

bool shell_command_failed(const char* command, int* status) {
    const int result = run_shell_command(command, systemctl_limit);
    if (status != nullptr) {
        *status = result;
    }
    return result != 0 && errno != 0;
}
