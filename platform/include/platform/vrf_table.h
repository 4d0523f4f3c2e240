/// VRF table: the platform's numbers for VRF names.
#ifndef PLATFORM_VRF_TABLE_H
#define PLATFORM_VRF_TABLE_H

#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Stores the number of the VRF (name without prefix). A number is assigned once and never changes or is reused.
platform_status vrf_table_lookup(const char* vrf_name, uint32_t* vrf_id);

#ifdef __cplusplus
}
#endif

#endif
