#include "linux/control/lock_out.h"

#include "control_protocol/answer.h"
#include "linux/control/calls_internal.h"

control_json control_read_acceptance(const control_json& request, bool& accepted) {
    return control_flag_member(request, "yes", accepted);
}

std::vector<std::string> control_lock_out_warnings(const std::vector<std::string>& reasons) {
    std::vector<std::string> warnings;
    warnings.reserve(reasons.size());
    for (const std::string& reason : reasons) {
        warnings.push_back("a new login like yours would be refused: " + reason);
    }
    return warnings;
}

std::string control_lock_out_message(const std::vector<std::string>& reasons) {
    std::string message;
    for (const std::string& warning : control_lock_out_warnings(reasons)) {
        message += warning + '\n';
    }
    return message + "nothing has been changed; if that is intended, use --yes";
}

control_json control_refuse_lock_out(const std::vector<std::string>& reasons) {
    control_json answer = control_answer(control_result::refused, control_lock_out_message(reasons));
    answer["lock_out"] = control_lock_out_warnings(reasons);
    return answer;
}
