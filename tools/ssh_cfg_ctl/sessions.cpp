#include "ssh_cfg_ctl/sessions.h"

#include "ssh_cfg_ctl/print.h"
#include "ssh_cfg_ctl/table.h"

namespace {

constexpr char no_value[] = "-";  ///< of ctl_value_text()

const control_json& member_of(const control_json& object, const char* name) {
    static const control_json none;
    const auto found = object.is_object() ? object.find(name) : object.end();
    return found == object.end() ? none : *found;
}

/// Without a login, the state stands where the method will be.
std::string method_text(const control_json& session) {
    const std::string state = ctl_member_text(session, "state");
    return state == "established" ? ctl_member_text(session, "method") : '(' + state + ')';
}

ctl_cell key_cell(const control_json& session) {
    const control_json& key = member_of(session, "key");
    return key.is_object() ? ctl_cell{ctl_member_text(key, "type"), ctl_member_text(key, "fingerprint")}
                           : ctl_cell{no_value};
}

/// What is the same in both directions is shown once. Some ciphers need no MAC.
void add_directions(ctl_cell& cell, const std::string& in, const std::string& out) {
    if (in == out && in != no_value) {
        cell.push_back(in);
    } else if (in != out) {
        cell.push_back("in " + in);
        cell.push_back("out " + out);
    }
}

ctl_cell algorithms_cell(const control_json& session) {
    const control_json& algorithms = member_of(session, "algorithms");
    if (!algorithms.is_object()) {
        return {no_value};
    }
    ctl_cell cell = {ctl_member_text(algorithms, "key_exchange"), ctl_member_text(algorithms, "host_key")};
    add_directions(cell, ctl_member_text(algorithms, "cipher_in"), ctl_member_text(algorithms, "cipher_out"));
    add_directions(cell, ctl_member_text(algorithms, "mac_in"), ctl_member_text(algorithms, "mac_out"));
    return cell;
}

ctl_cell terminals_cell(const control_json& session) {
    ctl_cell cell;
    for (const control_json& terminal : session.value("terminals", control_json::array())) {
        cell.push_back(ctl_value_text(terminal));
    }
    return cell.empty() ? ctl_cell{no_value} : cell;
}

std::string idle_text(const control_json& session) {
    const control_json& idle = member_of(session, "idle");
    return idle.is_number_integer() ? ctl_duration_text(idle.get<int64_t>()) : no_value;
}

std::string two_digits(int64_t number) {
    return (number < 10 ? "0" : "") + std::to_string(number);
}

}  // namespace

std::string ctl_source_text(const control_json& object) {
    std::string address = ctl_member_text(object, "address");
    const std::string port = ctl_member_text(object, "port");
    if (address == no_value || port == no_value) {
        return address;
    }
    return (address.find(':') == std::string::npos ? address : '[' + address + ']') + ':' + port;
}

std::string ctl_duration_text(int64_t seconds) {
    constexpr int64_t minute = 60;
    constexpr int64_t hour = 60 * minute;
    constexpr int64_t day = 24 * hour;
    if (seconds < minute) {
        return std::to_string(seconds) + 's';
    }
    if (seconds < hour) {
        return std::to_string(seconds / minute) + 'm';
    }
    return seconds < day ? std::to_string(seconds / hour) + "h " + two_digits(seconds % hour / minute) + 'm'
                         : std::to_string(seconds / day) + "d " + two_digits(seconds % day / hour) + 'h';
}

std::string ctl_sessions_text(const control_json& sessions, size_t width) {
    if (!sessions.is_array() || sessions.empty()) {
        return "no sessions\n";
    }
    ctl_table table = {{{"ID", true},
                        {"VRF", true},
                        {"User", false},
                        {"Source", true},
                        {"Since", true},
                        {"Method", true},
                        {"Key", false},
                        {"Algorithms", true},
                        {"Terminal", true},
                        {"Idle", true},
                        {"PID", true}},
                       {}};
    table.rows.reserve(sessions.size());
    for (const control_json& session : sessions) {
        table.rows.push_back({{ctl_member_text(session, "id")},
                              {ctl_member_text(session, "vrf")},
                              {ctl_member_text(session, "user")},
                              {ctl_source_text(session)},
                              {ctl_member_text(session, "since")},
                              {method_text(session)},
                              key_cell(session),
                              algorithms_cell(session),
                              terminals_cell(session),
                              {idle_text(session)},
                              {ctl_member_text(session, "pid")}});
    }
    return ctl_table_text(table, width, 0);
}

std::string ctl_ended_sessions_text(const control_json& sessions) {
    std::string text;
    for (const control_json& session : sessions.is_array() ? sessions : control_json::array()) {
        const std::string id = ctl_member_text(session, "id");
        text += (id == no_value ? "ended a connection" : "ended session " + id) + " of " +
                ctl_member_text(session, "user") + " in VRF " + ctl_member_text(session, "vrf") + " (PID " +
                ctl_member_text(session, "pid") + ")\n";
    }
    return text;
}
