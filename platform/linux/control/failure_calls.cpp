/// The call for failed logins. Events that have not been read from the journal yet are asked for again with the request in
/// "next", so nothing is kept for a caller who may have gone away.
#include <string>

#include "common/text.h"
#include "linux/control/calls_internal.h"
#include "linux/control/failure_reading.h"

namespace {

constexpr uint64_t usual_lines = 20;

/// Reads an optional number into `value`. Returns null, or an answer that describes the error.
control_json read_number(const control_json& request, const char* name, uint64_t lowest, uint64_t highest,
                         uint64_t& value) {
    const auto member = request.find(name);
    if (member == request.end()) {
        return {};
    }
    if (!member->is_number_unsigned() || member->get<uint64_t>() < lowest || member->get<uint64_t>() > highest) {
        const std::string wanted = "a number from " + std::to_string(lowest) + " to " + std::to_string(highest);
        return control_wrong_member(name, wanted.c_str());
    }
    value = member->get<uint64_t>();
    return {};
}

control_json read_vrf(const control_json& request, std::string& vrf) {
    constexpr size_t name_max = 255;
    if (!request.contains("vrf")) {
        return {};
    }
    const std::string* name = control_text_member(request, "vrf");
    if (name == nullptr || name->empty() || name->size() > name_max) {
        return control_wrong_member("vrf", "the name of a VRF");
    }
    vrf = *name;
    return {};
}

}  // namespace

control_json control_call_failures(const control_json& request, const control_peer& /*peer*/) {
    failure_query query{.lines = usual_lines, .vrf = {}};
    uint64_t number = 0;
    control_json wrong = read_number(request, "lines", 1, failure_lines_max, query.lines);
    if (wrong.is_null()) {
        wrong = read_number(request, "number", 0, UINT64_MAX, number);
    }
    if (wrong.is_null()) {
        wrong = read_vrf(request, query.vrf);
    }
    if (!wrong.is_null()) {
        return wrong;
    }
    failure_reading reading = failure_reading_follow(query, number);
    if (!reading.is_complete) {
        control_json answer = control_answer(control_result::done);
        answer["next"] = request;
        answer["next"]["number"] = reading.number;
        return answer;
    }
    if (!reading.problem.empty()) {
        return control_answer(control_result::failed, "the failed logins cannot be read: " + reading.problem);
    }
    return control_data_answer(std::move(reading.events));
}
