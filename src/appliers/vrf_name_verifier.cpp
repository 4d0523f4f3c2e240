#include "appliers/vrf_name_verifier.h"

#include <cerrno>
#include <cstring>

#include "appliers/trace_points.h"
#include "core/debug.h"
#include "platform/datastore.h"

namespace {

constexpr uint32_t vrf_name_component = 2;

bool is_harmless(const char* name) {
    for (; *name != '\0'; ++name) {
        if (datastore_reserved_character(static_cast<unsigned char>(*name)) != 0) {
            return false;
        }
    }
    return true;
}

platform_status refuse(const char* text, char** error_text, uint32_t* accepted) {
    debug_print("%s", text);
    trace_error(appliers_trace_vrf_name, {text});
    *accepted = 0;
    *error_text = strdup(text);
    return EINVAL;
}

}  // namespace

platform_status vrf_name_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                  const datastore_path_components* components) {
    if ((change->event & (DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET)) != 0) {
        if (change->value == nullptr) {
            return refuse("newvalue returned from datastore is NULL", error_text, accepted);
        }
        const char* name = components->count > vrf_name_component ? components->component[vrf_name_component] : nullptr;
        if (name == nullptr || !is_harmless(name)) {
            return refuse("Invalid characters in vrf_name", error_text, accepted);
        }
    }
    *accepted = 1;
    return PLATFORM_OK;
}
