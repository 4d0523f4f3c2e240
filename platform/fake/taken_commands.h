/// Shell commands that the fake platform takes over.
#ifndef FAKE_TAKEN_COMMANDS_H
#define FAKE_TAKEN_COMMANDS_H

#include <string>

namespace fake_platform {

/// From now on the platform takes this command, whose wait status is then `status`.
void take_command(std::string command, int status);

}  // namespace fake_platform

#endif
