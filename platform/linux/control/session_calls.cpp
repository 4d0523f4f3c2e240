/// Calls about the servers' sessions. A list of sessions that the responder has not handed out yet, and a session that has
/// not ended yet, are asked for again with the request in "next", so nothing is kept for a caller who may have gone away.
#include <algorithm>
#include <ctime>
#include <optional>
#include <vector>

#include "common/text.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/control/session_ending.h"
#include "linux/control/session_listing.h"

namespace {

constexpr size_t shown_selection = 80;

// Attempts to end a session; the tool pauses for a fifth of a second between two of them.
constexpr uint64_t attempt_to_kill_child = 15;
constexpr uint64_t attempt_to_kill_all = 25;
constexpr uint64_t attempts_max = 50;

constexpr const char* state_words[] = {"connecting", "authenticating", "established", "unrecorded"};

const char* state_word(uint32_t state) {
    return state < std::size(state_words) ? state_words[state] : "unknown";
}

control_json text_or_null(const char* text) {
    return text[0] == '\0' ? control_json() : control_json(text);
}

template <class number>
control_json number_or_null(number value, number unknown) {
    return value == unknown ? control_json() : control_json(value);
}

control_json time_or_null(int64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    tm parts = {};
    char text[32] = "";
    if (seconds <= 0 || gmtime_r(&time, &parts) == nullptr ||
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
        return {};
    }
    return text;
}

control_json key_of(const session_list_row& row) {
    return row.key_fingerprint[0] == '\0' ? control_json()
                                          : control_json{{"type", row.key_type}, {"fingerprint", row.key_fingerprint}};
}

control_json algorithms_of(const session_list_row& row) {
    if (row.kex[0] == '\0') {
        return {};
    }
    return {
        {"key_exchange", row.kex},      {"host_key", row.host_key},           {"cipher_in", row.in_cipher},
        {"cipher_out", row.out_cipher}, {"mac_in", text_or_null(row.in_mac)}, {"mac_out", text_or_null(row.out_mac)}};
}

control_json terminals_of(const session_list_row& row) {
    control_json terminals = control_json::array();
    for (uint32_t index = 0; index < row.terminal_count; ++index) {
        terminals.push_back("pts/" + std::to_string(row.terminals[index]));
    }
    return terminals;
}

control_json session_json(const session_list_row& row) {
    return {{"id", number_or_null(row.session_id, 0U)},
            {"state", state_word(row.state)},
            {"vrf", text_or_null(row.vrf)},
            {"user", text_or_null(row.user)},
            {"address", text_or_null(row.host)},
            {"port", number_or_null(row.port, 0U)},
            {"since", time_or_null(row.since)},
            {"method", text_or_null(row.method)},
            {"key", key_of(row)},
            {"algorithms", algorithms_of(row)},
            {"terminals", terminals_of(row)},
            {"idle", number_or_null(row.idle, session_list_no_idle_time)},
            {"pid", row.pid}};
}

std::optional<uint64_t> number_member(const control_json& request, const char* name) {
    const auto member = request.find(name);
    return member != request.end() && member->is_number_unsigned() ? std::optional(member->get<uint64_t>())
                                                                   : std::nullopt;
}

session_listing listing_for(const control_json& request) {
    const std::optional<uint64_t> number = number_member(request, "number");
    return number ? session_listing_follow(*number) : session_listing_begin();
}

control_json again(const control_json& request, uint64_t number) {
    control_json answer = control_answer(control_result::done);
    answer["next"] = request;
    answer["next"]["number"] = number;
    return answer;
}

control_json no_list(const session_listing& listing) {
    return control_answer(control_result::failed, "the sessions are not known: " + listing.problem);
}

/// Which sessions a request means: exactly one member is set.
struct selection {
    std::optional<uint64_t> id;
    std::optional<uint64_t> pid;
    const std::string* user = nullptr;
    const std::string* vrf = nullptr;
};

/// Returns false if the request does not select by exactly one member.
bool read_selection(const control_json& request, selection& selected) {
    selected.id = number_member(request, "id");
    selected.pid = number_member(request, "pid");
    selected.user = control_text_member(request, "user");
    selected.vrf = control_text_member(request, "vrf");
    const int members = (selected.id ? 1 : 0) + (selected.pid ? 1 : 0) + (selected.user != nullptr ? 1 : 0) +
                        (selected.vrf != nullptr ? 1 : 0);
    const bool is_empty = (selected.id && *selected.id == 0) || (selected.user != nullptr && selected.user->empty()) ||
                          (selected.vrf != nullptr && selected.vrf->empty());
    return members == 1 && !is_empty;
}

bool is_selected(const selection& selected, const session_list_row& row) {
    return (selected.id && row.session_id == *selected.id) ||
           (selected.pid && static_cast<uint64_t>(row.pid) == *selected.pid) ||
           (selected.user != nullptr && row.user == *selected.user) ||
           (selected.vrf != nullptr && row.vrf == *selected.vrf);
}

std::string selection_text(const selection& selected) {
    if (selected.id) {
        return "with ID " + std::to_string(*selected.id);
    }
    if (selected.pid) {
        return "with PID " + std::to_string(*selected.pid);
    }
    const bool by_user = selected.user != nullptr;
    return (by_user ? "of user " : "in VRF ") + text_escape(by_user ? *selected.user : *selected.vrf, shown_selection);
}

/// Returns "session 12 of operator from 10.0.0.7 port 40000 in VRF red, PID 4711".
std::string session_text(const session_list_row& row) {
    const std::string name = row.session_id == 0 ? std::string(state_word(row.state)) + " connection"
                                                 : "session " + std::to_string(row.session_id);
    const auto or_unknown = [](const char* text) { return text[0] == '\0' ? "unknown" : text; };
    return text_format("%s of %s from %s port %u in VRF %s, PID %d", name.c_str(), or_unknown(row.user),
                       or_unknown(row.host), row.port, or_unknown(row.vrf), row.pid);
}

bool is_named(const control_json& sessions, const session_list_row& row) {
    return std::any_of(sessions.begin(), sessions.end(), [&](const control_json& session) {
        return session.is_object() && number_member(session, "pid") == static_cast<uint64_t>(row.pid) &&
               number_member(session, "start_time") == row.start_time;
    });
}

control_json ended_json(const session_list_row& row) {
    return {{"id", number_or_null(row.session_id, 0U)},
            {"vrf", text_or_null(row.vrf)},
            {"user", text_or_null(row.user)},
            {"pid", row.pid},
            {"start_time", row.start_time}};
}

/// Returns the request that checks whether the sessions have ended.
control_json next_attempt(const control_json& request, const control_json& sessions, uint64_t attempt) {
    control_json answer = control_answer(control_result::done);
    answer["next"] = request;
    answer["next"].erase("number");
    answer["next"]["sessions"] = sessions;
    answer["next"]["attempt"] = attempt;
    return answer;
}

/// Logs the selected sessions and signals them. The log comes first, because the caller's own session may be among them.
control_json begin_ending(const control_json& request, const control_peer& peer, const selection& selected,
                          const std::vector<session_list_row>& rows) {
    control_json sessions = control_json::array();
    std::vector<std::string> entries;
    for (const session_list_row& row : rows) {
        if (is_selected(selected, row)) {
            sessions.push_back(ended_json(row));
            entries.push_back(session_text(row));
        }
    }
    if (entries.empty()) {
        return control_answer(control_result::no_data, "there is no session " + selection_text(selected));
    }
    control_audit(peer, "session end", control_result::done, entries);
    for (const session_list_row& row : rows) {
        if (is_selected(selected, row)) {
            session_end(row.pid, row.start_time, session_end_force::ask);
        }
    }
    return next_attempt(request, sessions, 1);
}

control_json ended_answer(const control_json& sessions) {
    control_json ended = sessions;
    for (control_json& session : ended) {
        if (session.is_object()) {
            session.erase("start_time");
        }
    }
    return control_data_answer(std::move(ended));
}

control_json still_running_answer(const control_peer& peer, const std::vector<session_list_row>& left) {
    std::vector<std::string> entries;
    std::string message = "still running:";
    for (const session_list_row& row : left) {
        entries.push_back(session_text(row));
        message += (entries.size() == 1 ? " " : "; ") + entries.back();
    }
    control_audit(peer, "session end", control_result::failed, entries);
    return control_answer(control_result::failed, message);
}

/// Logs the sessions, because a caller may begin with this attempt, and kills them.
void kill_sessions(const control_peer& peer, const std::vector<session_list_row>& rows, session_end_force force) {
    std::vector<std::string> entries;
    entries.reserve(rows.size());
    for (const session_list_row& row : rows) {
        entries.push_back("kill " + session_text(row));
    }
    control_audit(peer, "session end", control_result::done, entries);
    for (const session_list_row& row : rows) {
        session_end(row.pid, row.start_time, force);
    }
}

/// Answers whether the sessions have ended, and kills those that do not end by themselves.
control_json go_on_ending(const control_json& request, const control_peer& peer, uint64_t attempt,
                          const std::vector<session_list_row>& rows) {
    const control_json sessions = request.value("sessions", control_json::array());
    std::vector<session_list_row> left;
    std::copy_if(rows.begin(), rows.end(), std::back_inserter(left),
                 [&](const session_list_row& row) { return is_named(sessions, row); });
    if (left.empty()) {
        return ended_answer(sessions);
    }
    if (attempt >= attempts_max) {
        return still_running_answer(peer, left);
    }
    if (attempt == attempt_to_kill_child) {
        kill_sessions(peer, left, session_end_force::kill_child);
    } else if (attempt == attempt_to_kill_all) {
        kill_sessions(peer, left, session_end_force::kill_all);
    }
    return next_attempt(request, sessions, attempt + 1);
}

}  // namespace

control_json control_call_sessions(const control_json& request, const control_peer& /*peer*/) {
    const session_listing listing = listing_for(request);
    if (!listing.is_complete) {
        return again({{"call", "sessions"}}, listing.number);
    }
    if (listing.rows == nullptr) {
        return no_list(listing);
    }
    control_json sessions = control_json::array();
    for (const session_list_row& row : *listing.rows) {
        sessions.push_back(session_json(row));
    }
    return control_data_answer(std::move(sessions));
}

control_json control_call_session_end(const control_json& request, const control_peer& peer) {
    selection selected;
    if (!read_selection(request, selected)) {
        return control_answer(control_result::usage,
                              "the request must have exactly one of the members \"id\" and \"pid\" (numbers), \"user\" "
                              "and \"vrf\" (strings)");
    }
    const session_listing listing = listing_for(request);
    if (!listing.is_complete) {
        return again(request, listing.number);
    }
    if (listing.rows == nullptr) {
        return no_list(listing);
    }
    const uint64_t attempt = number_member(request, "attempt").value_or(0);
    return attempt == 0 ? begin_ending(request, peer, selected, *listing.rows)
                        : go_on_ending(request, peer, attempt, *listing.rows);
}
