#include "core/upcalls.h"

upcalls upcall;

void publish_telemetry() {
    if (upcall.ocssh_telemetry_publish != nullptr) {
        upcall.ocssh_telemetry_publish();
    }
}
