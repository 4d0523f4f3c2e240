/// The node that the agent's tests run on: an empty scratch root with stubs of the commands, and the fake platform.
#ifndef SUPPORT_AGENT_HARNESS_H
#define SUPPORT_AGENT_HARNESS_H

namespace agent_harness {

/// Called once, in the scratch root, before the first test.
void set_up();

}  // namespace agent_harness

#endif
