#include "agent_harness.h"

#include "fake/fake_platform.h"
#include "stub_commands.h"

namespace agent_harness {

void set_up() {
    stub_commands::install();
    fake_platform::reset();
}

}  // namespace agent_harness
