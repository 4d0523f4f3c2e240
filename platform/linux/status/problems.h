/// Describes everything that is not as configured.
#ifndef LINUX_STATUS_PROBLEMS_H
#define LINUX_STATUS_PROBLEMS_H

#include <ctime>
#include <string>
#include <vector>

#include "linux/status/machine_status.h"

/// Every difference between the configuration and the machine that `machine` shows: "VRF NAME" or the recorded subject, and
/// a sentence without a full stop. Empty if everything is as configured.
std::vector<enforcement_difference> machine_problems(const machine_status& machine);

/// A time in UTC: "2026-11-22T03:01:08Z".
std::string status_time(time_t moment);

#endif
