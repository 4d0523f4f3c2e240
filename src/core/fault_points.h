/// Fault points: places at which a tester can make this program fail.
#ifndef CORE_FAULT_POINTS_H
#define CORE_FAULT_POINTS_H

#include "platform/fault_injection.h"

inline constexpr uint32_t fault_point_count = 29;

/// In the order in which they are registered. None is enabled until the service says so.
extern fault_point fault_points[fault_point_count];

/// Offers the points to the fault-injection service. Deliberately called by nobody: a router in the field has none.
platform_status register_fault_points();

#endif
