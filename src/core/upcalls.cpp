#include "core/upcalls.h"

upcalls agent_upcalls;

void publish_telemetry() {
    if (agent_upcalls.ocssh_telemetry_publish != nullptr) {
        agent_upcalls.ocssh_telemetry_publish();
    }
}
