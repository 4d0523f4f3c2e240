#include "appliers/settings.h"

#include "appliers/server_settings.h"
#include "appliers/setting_row.h"
#include "appliers/trace_points.h"
#include "config_files/parameter_table.h"
#include "core/debug.h"

#define SETTING(path, verifier, applier, code, name, meaning, ...)                              \
    platform_status applier(const datastore_change* change, const datastore_path_components*) { \
        static constexpr setting_row row = {.trace_point = appliers_trace_##name, __VA_ARGS__}; \
        return apply_setting(row, *change);                                                     \
    }
#include "config_files/configuration.def"
