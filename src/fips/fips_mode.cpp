#include "fips/fips_mode.h"

#include "core/agent_state.h"
#include "core/debug.h"
#include "core/paths.h"
#include "fips/trace_points.h"
#include "platform/datastore.h"

namespace {

int32_t answer_of(platform_status status) {
    if (status == PLATFORM_OK) {
        return 1;
    }
    if (status == DATASTORE_NO_SUCH_ITEM) {
        debug_print("FIPS mode not configured");
        return 0;
    }
    debug_print("Error:=%s(0x%x), Datastore item get failed for fips mode", platform_status_text(status), status);
    trace_error(fips_trace_question, {"get", status});
    return -1;
}

}  // namespace

int32_t fips_mode_get() {
    datastore_binding* binding = nullptr;
    const platform_status status = bind_datastore(paths::crypto_tree, &binding);
    if (status != PLATFORM_OK) {
        debug_print("Datastore bind to cepki fips cfg failed");
        trace_error(fips_trace_question, {"bind", status});
        return -1;
    }
    const int32_t answer = answer_of(datastore_item_get(binding, fips_mode_item, nullptr, 0, nullptr));
    datastore_unbind(binding);
    return answer;
}
