#include "platform/fault_injection.h"

#include <cerrno>

/// A stock Linux system has no service that could enable the points.
platform_status fault_injection_register(const char*, struct fault_point*, uint32_t) {
    return ENOTSUP;
}
