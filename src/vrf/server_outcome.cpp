#include "vrf/server_outcome.h"

#include <sys/wait.h>

#include <cerrno>

#include "config_files/restart_record.h"
#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "core/text.h"
#include "platform/enforcement.h"
#include "platform/status.h"
#include "vrf/acl_attachment.h"
#include "vrf/protection.h"
#include "vrf/trace_points.h"

namespace {

constexpr size_t report_size = 512;

/// systemctl's exit status for an unknown unit.
constexpr int unit_not_loaded = 5;

/// Records whether a failed start leaves the VRF blocked.
void note_start_failed(const char* vrf_name, bool failed) {
    vrf_node* node = find_vrf_node(vrf_name);
    if (node != nullptr) {
        node->start_failed = failed ? 1 : 0;
    }
}

/// An earlier failed start has left the VRF's lists unloaded.
void load_failed_lists(const char* vrf_name) {
    vrf_node* node = find_vrf_node(vrf_name);
    if (node != nullptr && node->failed_acls != 0) {
        reload_acls(node);
    }
}

}  // namespace

bool nothing_was_left_running(int status) {
    return status == 0 || (status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == unit_not_loaded);
}

void report_server(const char* vrf_name, const char* command, int status) {
    const int error = errno;
    char subject[report_size];
    format_text(subject, sizeof subject, "server %s", vrf_name);
    if (status == 0) {
        enforcement_restored(subject);
    } else {
        char reason[report_size];
        format_text(reason, sizeof reason, status == -1 && error == ETIMEDOUT ? "%s timed out" : "%s failed", command);
        enforcement_failed(subject, reason);
    }
    errno = error;
}

void server_has_started(const char* vrf_name) {
    note_start_failed(vrf_name, false);
    note_restart_done(vrf_name);
    load_failed_lists(vrf_name);
    unblock_vrf(vrf_name);
    trace_event(vrf_trace_restarted, {vrf_name});
}

void server_has_not_started(const char* vrf_name) {
    const int error = errno;
    debug_print("Vrf-name:=%s, Error:=%s(0x%x), Failed to start the server", vrf_name, platform_status_text(error),
                error);
    trace_error(vrf_trace_start, {vrf_name, error});
    // Without a server there is nothing to let connections in for: the VRF stays blocked until a start succeeds.
    note_start_failed(vrf_name, true);
}

void server_has_stopped(const char* vrf_name) {
    note_start_failed(vrf_name, false);
    note_restart_done(vrf_name);
    unblock_vrf(vrf_name);
    trace_event(vrf_trace_stopped, {vrf_name});
}

void server_has_not_stopped(const char* vrf_name) {
    const int error = errno;
    debug_print("Vrf-name:=%s, Error:=%s(0x%x), Failed to kill the server", vrf_name, platform_status_text(error),
                error);
    trace_error(vrf_trace_stop, {vrf_name, error});
    errno = error;
}
