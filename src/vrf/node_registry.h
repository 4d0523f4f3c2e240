/// The registry of VRF nodes. The head of the list is server_config.nodes; config_files/vrf_node.h has the lookup.
#ifndef VRF_NODE_REGISTRY_H
#define VRF_NODE_REGISTRY_H

#include "config_files/vrf_node.h"

/// Creates a node with one reference at the head of the list. The name is cut to 32 characters. Returns null when out
/// of memory.
vrf_node* create_vrf_node(const char* vrf_name);

/// Unlinks and frees a node; a node that is not in the list is left alone.
void delete_vrf_node(vrf_node* node);

#endif
