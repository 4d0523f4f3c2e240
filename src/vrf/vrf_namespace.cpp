#include "vrf/vrf_namespace.h"

#include <climits>

#include "config_files/files.h"
#include "core/paths.h"
#include "core/text.h"

void vrf_namespace_name(const char* vrf_name, char* name, size_t size) {
    format_text(name, size, "%s%s", vrf_namespace_prefix, vrf_name);
}

bool vrf_namespace_exists(const char* vrf_name) {
    char path[PATH_MAX];
    format_text(path, sizeof path, "%s%s", paths::namespace_prefix, vrf_name);
    return path_may_exist(path);
}
