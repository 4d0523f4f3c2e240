#include "ssh_cfg_ctl/consent.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <string_view>

#include "common/text.h"

namespace {

constexpr size_t shown_reason = 1024;

bool has_terminal() {
    return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
}

/// Reads what the operator types. Only the whole word counts.
bool is_confirmed(const control_json& reasons) {
    for (const control_json& reason : reasons) {
        fprintf(stderr, "ssh_cfg_ctl: %s\n",
                text_escape(reason.is_string() ? reason.get<std::string>() : "", shown_reason).c_str());
    }
    fputs("Make this change nevertheless? Type \"yes\" to confirm: ", stderr);
    fflush(stderr);
    std::array<char, 16> reply = {};
    return fgets(reply.data(), reply.size(), stdin) != nullptr && std::string_view(reply.data()) == "yes\n";
}

}  // namespace

control_json ctl_ask_with_consent(const ctl_connection_settings& settings, control_json request) {
    if (settings.consents) {
        request["yes"] = true;
    }
    control_json answer = ctl_ask_to_the_end(settings, request);
    if (!answer.contains("lock_out") || !has_terminal()) {
        return answer;
    }
    if (!is_confirmed(answer["lock_out"])) {
        return control_answer(control_result::refused, "not confirmed, nothing has been changed");
    }
    request["yes"] = true;
    return ctl_ask_to_the_end(settings, request);
}
