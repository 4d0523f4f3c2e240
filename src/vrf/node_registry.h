/// The registry of VRF nodes; the list's head stands in server.nodes, its look-up in config_files/vrf_node.h.
#ifndef VRF_NODE_REGISTRY_H
#define VRF_NODE_REGISTRY_H

#include "config_files/vrf_node.h"

/// Makes a node with one reference and puts it at the head. The name is cut to 32 characters. Null when out of memory.
vrf_node* create_vrf_node(const char* vrf_name);

/// Unlinks and frees a node; one that is not in the list is left alone.
void delete_vrf_node(vrf_node* node);

#endif
