#include "reconcile/reconciliation.h"

#include <new>

#include "acl/failed_lists.h"
#include "config_files/restart_record.h"
#include "core/log.h"
#include "core/shell_command.h"
#include "core/trace.h"
#include "reconcile/access_rules.h"
#include "reconcile/configuration_files.h"
#include "reconcile/findings.h"
#include "reconcile/host_files.h"
#include "reconcile/servers.h"
#include "reconcile/trace_points.h"

namespace {

/// Runs all comparisons: files before the servers that read them. Returns the number of remaining differences, or -1.
int compare_everything(comparison& run) {
    compare_host_files(run);
    // A VRF's file is made from the default file, so it cannot be repaired without it.
    if (compare_default_file(run) || !run.repair) {
        compare_deletions(run);
        compare_vrf_files(run);
    }
    compare_client_file(run);
    if (compare_servers(run) != 0) {
        log_errno("Failed to read the states of the servers");
        return -1;
    }
    run.remaining += acl_reload_failed(run.repair ? 1 : 0, run.sink, run.sink_context);
    compare_access_rules(run);
    if (run.repair && run.remaining == 0) {
        drop_earlier_restarts();
    }
    return run.remaining;
}

/// Returns the number of differences left, or -1.
int run_comparison(comparison& run) {
    int remaining = -1;
    begin_command_group();
    try {
        remaining = compare_everything(run);
    } catch (const std::bad_alloc&) {
        log_error("Out of memory while comparing the configuration with the machine");
    }
    end_command_group();
    trace_event(reconcile_trace_compared, {run.repair ? 1 : 0, remaining});
    return remaining;
}

}  // namespace

int reconcile(uint32_t repair, enforcement_difference_sink sink, void* sink_context, void*) {
    constexpr uint32_t automatic_repair = 1;
    comparison run{repair != 0, sink, sink_context};
    run.on_request = repair != automatic_repair;
    return run_comparison(run);
}

void reconcile_at_start() {
    constexpr enforcement_callbacks callbacks = {reconcile};
    const auto nobody = [](const char*, const char*, void*) {};
    comparison run{true, nobody, nullptr, true};
    if (run_comparison(run) < 0) {
        enforcement_failed("servers", "their states cannot be read");
    }
    const platform_status status = enforcement_register(&callbacks, nullptr);
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, "Failed to offer the comparison of the configuration with the machine");
    }
}
