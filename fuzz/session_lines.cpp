/// Log lines about a session. Whatever they contain, the facts fit their fields and yield an answer whose texts are
/// terminated, and what the log shows of a line is contained in that line.
///
/// Input: one byte of switches, then lines, all about the same session.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "openssh/reporter/fact_rows.h"
#include "openssh/reporter/log_filter.h"
#include "openssh/reporter/login_attempt.h"
#include "openssh/sessions/snapshot.h"
#include "require.h"

namespace {

using namespace openssh;

template <size_t size>
void require_ended(const char (&field)[size]) {
    require(memchr(field, '\0', size) != nullptr);
}

void check_answer(const session_facts& facts, uint64_t now) {
    const session_snapshot answer = make_snapshot(facts, now, {.sent = now * now, .received = now, .known = 1});
    require_ended(answer.user_id);
    require_ended(answer.remote_host);
    require_ended(answer.authentication_method);
    require_ended(answer.kex_algorithm);
    require_ended(answer.host_key_algorithm);
    require_ended(answer.in_cipher);
    require_ended(answer.out_mac);
    require_ended(answer.time_to_rekey);
    uint32_t open_channels = 0;
    for (size_t slot = 1; slot < SESSION_CHANNEL_SLOTS; ++slot) {
        require_ended(answer.line[slot]);
        require(answer.channel_state[slot - 1] <= channel_running);
        open_channels += answer.channel_state[slot - 1] != 0 ? 1 : 0;
    }
    require(answer.open_channels == open_channels);
    require(answer.session_state <= session_established);
}

void check_shown(log_filter& filter, std::string_view written) {
    log_line line;
    if (judge_line(filter, written, line) != line_fate::pass_bare) {
        return;
    }
    std::string bare(written.size(), '\0');
    const size_t length = write_bare_line(line, bare.data(), bare.size());
    require(length <= written.size());
    require(bare.find("(pid=") == std::string::npos || line.text.find("(pid=") != std::string_view::npos);
}

void take_line_of_attempt(login_attempt& attempt, std::string_view written, unsigned switches) {
    const login_attempt before = attempt;
    bool before_authentication = false;
    const std::string_view message = plain_message(written, before_authentication);
    const bool from_monitor = (switches & 2U) != 0 && !before_authentication;
    follow_attempt(attempt, message, from_monitor);
    require_ended(attempt.user);
    require_ended(attempt.methods);
    require_ended(attempt.key);
    require_ended(attempt.cause);
    require_ended(attempt.ending);
    require_ended(attempt.detail);
    require_ended(reason_of(attempt).text);
    require(std::strcmp(attempt.accepted, before.accepted) == 0 || from_monitor);
}

void take_line(session_facts& facts, log_filter& filter, std::string_view written, unsigned switches, uint64_t now) {
    check_shown(filter, written);
    log_line line;
    if (!parse_log_line(written, line)) {
        return;
    }
    const session_facts before = facts;
    const bool from_monitor = (switches & 2U) != 0;
    learn_from_line(facts, line, {.from_monitor = from_monitor, .now = now, .bytes = {}, .own_terminal = 3});
    // Only the monitor authenticates a user, and never in a line of the unprivileged process.
    require(facts.state == before.state || (from_monitor && !line.before_authentication));
    require(std::strcmp(facts.method, before.method) == 0 || (from_monitor && !line.before_authentication));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const unsigned switches = data[0];
    std::string_view lines(reinterpret_cast<const char*>(data) + 1, size - 1);
    session_facts facts;
    log_filter filter;
    login_attempt attempt;
    facts.kind = (switches & 1U) != 0 ? session_kind::outgoing : session_kind::incoming;
    for (uint64_t now = 1; !lines.empty(); ++now) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        take_line(facts, filter, line, switches, now);
        take_line_of_attempt(attempt, line, switches);
        check_answer(facts, now);
        lines.remove_prefix(std::min(line.size() + 1, lines.size()));
    }
    return 0;
}
