#include "core/default_handlers.h"

#include "core/debug.h"
#include "core/log.h"

platform_status default_verifier(const datastore_change*, char**, uint32_t* accepted,
                                 const datastore_path_components*) {
    debug_print("SSH default verifier entered");
    *accepted = 1;
    return PLATFORM_OK;
}

platform_status default_applier(const datastore_change*, const datastore_path_components*) {
    debug_print("SSH default applier entered");
    return PLATFORM_OK;
}

platform_status unsupported_item_applier(const datastore_change*, const datastore_path_components*) {
    debug_print(
        "Backup server, netconf-port configs, ssh v1 is not supported in this platform and release, will not take effect");
    log_text(
        WARNING_GENERAL,
        "Backup server, netconf-port configs, ssh v1 are not supported in this platform and release, will not take effect");
    return PLATFORM_OK;
}
