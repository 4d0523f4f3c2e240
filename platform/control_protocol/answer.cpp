#include "control_protocol/answer.h"

#include <array>

namespace {

// Indexed by result.
constexpr std::array result_names = {"done", "failed", "usage", "unreachable", "no_data", "refused", "not_in_force"};

}  // namespace

const char* control_result_name(control_result result) {
    return result_names.at(static_cast<size_t>(result));
}

control_result control_result_of_name(std::string_view name) {
    for (size_t index = 0; index < result_names.size(); index++) {
        if (name == result_names.at(index)) {
            return static_cast<control_result>(index);
        }
    }
    return control_result::failed;
}

control_json control_answer(control_result result, std::string_view message) {
    control_json answer = {{"result", control_result_name(result)}};
    if (!message.empty()) {
        answer["message"] = message;
    }
    return answer;
}

const char* control_version() {
    return SSH_CFG_VERSION;
}
