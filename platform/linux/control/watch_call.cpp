#include "linux/control/calls_internal.h"
#include "linux/control/events.h"
#include "linux/datastore/telemetry_producer_internal.h"

namespace {

/// Every event carries the whole state of the path that it is about.
void pass_on(const control_json& notification, void* /*context*/) {
    const auto& path = notification["prefix"].get_ref<const std::string&>();
    if (control_publish(path, control_json_text(notification)) == 0) {
        telemetry_unlisten(pass_on, nullptr);
    }
}

}  // namespace

control_json control_call_watch(const control_json& request, const control_peer& /*peer*/) {
    bool wants_sessions = false;
    control_json wrong = control_flag_member(request, "sessions", wants_sessions);
    if (!wrong.is_null()) {
        return wrong;
    }
    if (wants_sessions) {
        control_json answer = control_data_answer(control_json::array());
        answer["watching"] = "sessions";
        return answer;
    }
    // Registering twice has no effect. The registration ends with the first event after the last watcher has gone.
    telemetry_listen(pass_on, nullptr);
    control_json answer = control_data_answer(telemetry_snapshot());
    answer["watching"] = true;
    answer["model"] = {{"name", telemetry_model}, {"revision", telemetry_model_revision}};
    return answer;
}
