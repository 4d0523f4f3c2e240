#include "linux/control/audit.h"

#include <syslog.h>

#include <utility>

#include "common/text.h"
#include "linux/reporting/log_message_internal.h"

namespace {

/// The most characters of the entries in one line of the journal.
constexpr size_t line_length = 2000;
constexpr size_t entry_length = 400;

std::function<void(const std::string& line)> diverted;

void send_line(const control_peer& peer, const char* call, control_result result, const std::string& entries) {
    const std::string text = text_format("Control: uid:=%u, pid:=%d, call:=%s, result:=%s, %s", peer.uid, peer.pid,
                                         call, control_result_name(result), entries.c_str());
    if (diverted) {
        diverted(text);
        return;
    }
    journal_send(LOG_NOTICE, text.c_str(),
                 {{"SSH_CFG_UID=", std::to_string(peer.uid)},
                  {"SSH_CFG_PID=", std::to_string(peer.pid)},
                  {"SSH_CFG_CALL=", call},
                  {"SSH_CFG_RESULT=", control_result_name(result)}},
                 text.c_str());
}

}  // namespace

void control_audit(const control_peer& peer, std::string_view call, control_result result,
                   const std::vector<std::string>& entries) {
    const std::string call_name(call);
    std::string line;
    for (const std::string& entry : entries) {
        // Text sent by a peer must not begin a line of its own.
        const std::string shown = text_escape(entry, entry_length);
        if (!line.empty() && line.size() + shown.size() > line_length) {
            send_line(peer, call_name.c_str(), result, std::exchange(line, {}));
        }
        line += line.empty() ? shown : ", " + shown;
    }
    send_line(peer, call_name.c_str(), result, line.empty() ? "nothing to change" : line);
}

void control_audit_divert(std::function<void(const std::string& line)> sink) {
    diverted = std::move(sink);
}
