/// The node as the agent's tests find it: an empty scratch root with stand-ins for the commands, and the fake platform.
#ifndef SUPPORT_AGENT_HARNESS_H
#define SUPPORT_AGENT_HARNESS_H

namespace agent_harness {

/// Called once, in the scratch root, before the first test.
void set_up();

}  // namespace agent_harness

#endif
