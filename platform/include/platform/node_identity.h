/// Node identity: this node's number and name.
#ifndef PLATFORM_NODE_IDENTITY_H
#define PLATFORM_NODE_IDENTITY_H

#include <stddef.h>
#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { NODE_NAME_SIZE = 20 };

/// Stores this node's number.
platform_status node_identity_id(uint32_t* node_id);

/// Stores the name of a node, cut to the buffer of `size` bytes.
platform_status node_identity_name(uint32_t node_id, char* name, size_t size);

#ifdef __cplusplus
}
#endif

#endif
