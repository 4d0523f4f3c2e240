#include "agent_harness.h"

#include <filesystem>

#include "fake/fake_platform.h"
#include "stub_commands.h"

namespace agent_harness {

void set_up() {
    // The directory in which the service manager starts the agent.
    std::filesystem::current_path("/");
    stub_commands::install();
    fake_platform::reset();
}

}  // namespace agent_harness
