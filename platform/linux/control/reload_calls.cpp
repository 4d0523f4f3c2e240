/// Calls that announce a reload of the router. `reload` sends the notification; if the acknowledgement has not arrived
/// by the end of the call, the caller polls for it with `reload_state`. So nothing is kept for a caller who may have
/// gone away.
#include <algorithm>

#include "common/text.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/host/shelf_manager_internal.h"

namespace {

constexpr uint32_t timeout_default = 15;  ///< seconds; the agent takes about five to handle the notification
constexpr uint32_t timeout_max = 3600;

/// Reads the member `timeout`; nothing if it is invalid.
std::optional<uint32_t> timeout_of(const control_json& request) {
    const auto member = request.find("timeout");
    if (member == request.end()) {
        return timeout_default;
    }
    if (!member->is_number_unsigned() || member->get<uint64_t>() < 1 || member->get<uint64_t>() > timeout_max) {
        return std::nullopt;
    }
    return member->get<uint32_t>();
}

control_json waiting_answer(const shelf_reload& reload) {
    control_json answer = control_answer(control_result::done);
    answer["next"] = {{"call", "reload_state"}, {"number", reload.number}};
    return answer;
}

control_json answer_of(const shelf_reload& reload) {
    switch (reload.phase) {
        case shelf_reload_phase::waiting:
            return waiting_answer(reload);
        case shelf_reload_phase::acknowledged:
            return control_answer(control_result::done);
        case shelf_reload_phase::unanswered:
            return control_answer(
                control_result::failed,
                text_format(
                    "the reload was not acknowledged within %u seconds: sessions are still open, or the servers "
                    "could not be stopped; the agent's log says which, and the agent restarts the servers itself",
                    reload.timeout));
        case shelf_reload_phase::none:
            break;
    }
    return control_answer(control_result::no_data, "no reload has been announced");
}

control_json refusal_of(platform_status status) {
    if (status == EALREADY) {
        const shelf_reload reload = shelf_manager_reload_state();
        return control_answer(
            control_result::failed,
            text_format(
                "a reload is in progress: its notice was sent %u seconds ago and can be acknowledged for another %u",
                reload.passed, reload.timeout - std::min(reload.passed, reload.timeout)));
    }
    return control_answer(control_result::failed,
                          "the agent has not registered for reload notices with the shelf manager");
}

const char* phase_in_words(shelf_reload_phase phase) {
    return phase == shelf_reload_phase::acknowledged ? "acknowledged" : "not acknowledged yet";
}

}  // namespace

control_json control_call_reload(const control_json& request, const control_peer& peer) {
    const std::optional<uint32_t> timeout = timeout_of(request);
    if (!timeout.has_value()) {
        return control_wrong_member("timeout", "a number of seconds from 1 to 3600");
    }
    // Reported before the sessions end, since the caller's own may be among them.
    control_audit(peer, "reload", control_result::done, {"asked for"});
    const platform_status status = shelf_manager_announce_reload(*timeout);
    if (status != PLATFORM_OK) {
        control_json refusal = refusal_of(status);
        control_audit(peer, "reload", control_result::failed, {refusal.value("message", "")});
        return refusal;
    }
    const shelf_reload reload = shelf_manager_reload_state();
    control_audit(peer, "reload", control_result::done, {phase_in_words(reload.phase)});
    return answer_of(reload);
}

control_json control_call_reload_state(const control_json& request, const control_peer& /*peer*/) {
    const auto number = request.find("number");
    if (number == request.end() || !number->is_number_unsigned()) {
        return control_wrong_member("number", "a number");
    }
    const shelf_reload reload = shelf_manager_reload_state();
    if (number->get<uint64_t>() != reload.number) {
        return control_answer(control_result::failed,
                              "the reload was not acknowledged; a newer one has been announced");
    }
    shelf_manager_follow_reload();
    return answer_of(reload);
}
