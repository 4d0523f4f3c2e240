/// Fault points: places where a tester can make this program fail.
#ifndef CORE_FAULT_POINTS_H
#define CORE_FAULT_POINTS_H

#include "platform/fault_injection.h"

inline constexpr uint32_t fault_point_count = 29;

/// In the order of registration. None is enabled until the service enables it.
extern fault_point fault_points[fault_point_count];

/// Registers the points with the fault-injection service. Deliberately never called: routers in the field have no such
/// service.
platform_status register_fault_points();

#endif
