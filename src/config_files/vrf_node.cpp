#include "config_files/vrf_node.h"

#include <cstring>

#include "config_files/parameter_table.h"

vrf_node* find_vrf_node(const char* vrf_name) {
    for (vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (std::strncmp(node->name, vrf_name, vrf_name_size) == 0) {
            return node;
        }
    }
    return nullptr;
}
