/// Fault injection: named points at which a tester can make the program fail.
#ifndef PLATFORM_FAULT_INJECTION_H
#define PLATFORM_FAULT_INJECTION_H

#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

struct fault_point {
    char text[56];
    uint32_t enabled;  ///< written by the service
};

/// Registers the points of a component. ENOTSUP on a platform without this service.
platform_status fault_injection_register(const char* component, struct fault_point* points, uint32_t count);

#ifdef __cplusplus
}
#endif

#endif
