#include "ssh_cfg_ctl/show.h"

#include <algorithm>
#include <array>
#include <map>
#include <span>

#include "common/text.h"
#include "control_protocol/answer.h"
#include "control_protocol/session_trees.h"
#include "ssh_cfg_ctl/print.h"
#include "ssh_cfg_ctl/table.h"
#include "ssh_cfg_ctl/value_names.h"

namespace {

constexpr char nothing[] = "-";

/// How a field's value is shown.
struct value_form {
    const char* enumeration = "";  ///< supplies the names of the values
    const char* unit = "";
    const char* breaks = " ";    ///< where its lines may be broken
    const char* separator = "";  ///< between its lines
};

constexpr value_form plainly;
constexpr value_form comma_separated = {.breaks = ","};
constexpr value_form servers = {.separator = "  "};

const control_json& member(const control_json& object, const char* name) {
    static const control_json none;
    const auto found = object.is_object() ? object.find(name) : object.end();
    return found == object.end() ? none : *found;
}

/// -1 in 32 bits, signed or unsigned, means unknown.
bool is_unknown(int64_t number) {
    return number == -1 || number == UINT32_MAX;
}

std::string number_text(const control_json& number, const value_form& form) {
    const int64_t value = number.is_number_integer() ? number.get<int64_t>() : 0;
    if (is_unknown(value)) {
        return nothing;
    }
    const char* name = number.is_number_integer() ? ctl_value_name(form.enumeration, value) : nullptr;
    return name != nullptr ? name : control_json_text(number) + form.unit;
}

std::string value_text(const control_json& value, const value_form& form) {
    if (value.is_number()) {
        return number_text(value, form);
    }
    const std::string text = ctl_value_text(value);
    return text.empty() ? nothing : text;
}

/// The parts of a text between separators, without the empty ones.
ctl_cell cell_of(const control_json& value, const value_form& form) {
    const std::string text = value_text(value, form);
    const std::string_view separator = form.separator;
    ctl_cell lines;
    for (size_t start = 0; !separator.empty() && start < text.size();) {
        const size_t end = std::min(text.find(separator, start), text.size());
        if (end > start) {
            lines.push_back(text.substr(start, end - start));
        }
        start = end + separator.size();
    }
    return lines.empty() ? ctl_cell{text} : lines;
}

/// A channel: its number, its use, its terminal line.
std::string channel_text(const control_json& channel, const std::string& line) {
    constexpr value_form connection_types = {.enumeration = "connection_type_en"};
    return value_text(member(channel, "ChannelID"), plainly) + ' ' +
           value_text(member(channel, "ConnectionType"), connection_types) + (line.empty() ? "" : ' ' + line);
}

/// The records identify a line by number, which is valid only if one is assigned.
std::string assigned_line(const control_json& channel) {
    return member(channel, "VTYAssigned") == true ? "vty " + value_text(member(channel, "VTYLineNumber"), plainly) : "";
}

/// The records of the command line identify it by name, one of which means that there is none.
std::string named_line(const control_json& channel) {
    const std::string name = value_text(member(channel, "Line"), plainly);
    return name == "XXXXX" || name == nothing ? "" : name;
}

template <std::string (*line_of)(const control_json& channel)>
ctl_cell channels_cell(const control_json& channels) {
    ctl_cell lines;
    for (const control_json& channel : channels.is_array() ? channels : control_json::array()) {
        lines.push_back(channel_text(channel, line_of(channel)));
    }
    return lines.empty() ? ctl_cell{nothing} : lines;
}

/// A column of the session table.
struct session_column {
    const char* field;  ///< field of a session's record
    const char* heading;
    value_form form = plainly;
    const char* out_field = nullptr;  ///< the outgoing value, if `field` is the incoming one
    bool may_wrap = false;            ///< on a narrow terminal
    bool only_when_known = false;     ///< omitted if no session has a value
    /// Formats the field's value into the cell instead.
    ctl_cell (*cell)(const control_json& value) = nullptr;
};

/// A record about sessions: two lists of them, or one session in a list of records.
struct session_view {
    const char* record;
    std::span<const session_column> columns;
    std::array<const char*, 2> lists;  ///< fields of the incoming and the outgoing sessions
};

constexpr const char* no_lists = nullptr;

constexpr value_form states = {.enumeration = "states_en"};
constexpr value_form versions = {.enumeration = "version_en"};
constexpr value_form authentication_types = {.enumeration = "authen_type_en"};
constexpr value_form key_exchanges = {.enumeration = "kex_name_en"};
constexpr value_form host_keys = {.enumeration = "hostkey_type_en"};
constexpr value_form ciphers = {.enumeration = "cipher_type_en"};
constexpr value_form macs = {.enumeration = "mac_type_en"};

constexpr session_column brief_columns[] = {
    {.field = "SessionID", .heading = "ID"},
    {.field = "NodeName", .heading = "Node"},
    {.field = "UserID", .heading = "User", .may_wrap = true},
    {.field = "HostAddress", .heading = "Host", .may_wrap = true},
    {.field = "SessionState", .heading = "State", .form = states},
    {.field = "Version", .heading = "Ver", .form = versions},
    {.field = "AuthenticationType", .heading = "Auth", .form = authentication_types, .may_wrap = true},
    {.field = "McInfo", .heading = "Channels", .cell = channels_cell<assigned_line>},
};

constexpr session_column detail_columns[] = {
    {.field = "SessionID", .heading = "ID"},
    {.field = "KeyExchange", .heading = "Key exchange", .form = key_exchanges, .may_wrap = true},
    {.field = "PublicKey", .heading = "Host key", .form = host_keys, .may_wrap = true},
    {.field = "InCipher", .heading = "Cipher", .form = ciphers, .out_field = "OutCipher", .may_wrap = true},
    {.field = "InMAC", .heading = "MAC", .form = macs, .out_field = "OutMAC", .may_wrap = true},
    {.field = "Start_Time", .heading = "Start", .may_wrap = true, .only_when_known = true},
    {.field = "End_Time", .heading = "End", .may_wrap = true, .only_when_known = true},
};

constexpr session_column rekey_columns[] = {
    {.field = "SessionID", .heading = "ID"},
    {.field = "SessionRekeyCount", .heading = "Rekeys"},
    {.field = "TimeToRekey", .heading = "Minutes to rekey", .may_wrap = true},
    {.field = "VolumeToRekey", .heading = "MiB to rekey", .may_wrap = true},
};

// What the record calls a cipher is the session's protocol version.
constexpr session_column command_line_brief_columns[] = {
    {.field = "SessionID", .heading = "ID"},
    {.field = "SessionPID", .heading = "PID"},
    {.field = "Nid", .heading = "Node"},
    {.field = "UserID", .heading = "User", .may_wrap = true},
    {.field = "Host", .heading = "Host", .may_wrap = true},
    {.field = "State", .heading = "State", .form = states},
    {.field = "Cipher", .heading = "Ver"},
    {.field = "AuthenMethod", .heading = "Auth", .may_wrap = true},
    {.field = "McInfo", .heading = "Channels", .cell = channels_cell<named_line>},
};

constexpr session_column command_line_detail_columns[] = {
    {.field = "SessionID", .heading = "ID"},
    {.field = "KexName", .heading = "Key exchange", .may_wrap = true},
    {.field = "HostKeyAlg", .heading = "Host key", .may_wrap = true},
    {.field = "InCipher", .heading = "Cipher", .out_field = "OutCipher", .may_wrap = true},
    {.field = "InMac", .heading = "MAC", .out_field = "OutMac", .may_wrap = true},
    {.field = "Start_Time", .heading = "Start", .may_wrap = true, .only_when_known = true},
    {.field = "End_Time", .heading = "End", .may_wrap = true, .only_when_known = true},
};

constexpr session_column command_line_rekey_columns[] = {
    {.field = "SessionID", .heading = "ID"},
    {.field = "Cipher", .heading = "Ver"},
    {.field = "ChannelID", .heading = "Channel"},
    {.field = "State", .heading = "State", .form = states},
    {.field = "SessionRekeyCount", .heading = "Rekeys"},
    {.field = "NextRekeyTimeStr", .heading = "Seconds to rekey", .may_wrap = true},
    {.field = "DataToRekey", .heading = "Bytes to rekey", .may_wrap = true},
};

constexpr session_view session_views[] = {
    {"ssh_session_brief", brief_columns, {"IncomingSessions", "OutgoingSessions"}},
    {"ssh_session_detail", detail_columns, {"IncomingSessions", "OutgoingConnections"}},
    {"ssh_session_rekey", rekey_columns, {"IncomingSessions", "OutgoingConnections"}},
    {"sshd_sessioninfo", command_line_brief_columns, {no_lists, no_lists}},
    {"sshd_kexinfo", command_line_detail_columns, {no_lists, no_lists}},
    {"sshd_rekey", command_line_rekey_columns, {no_lists, no_lists}},
};

constexpr std::array list_headings = {"Incoming sessions", "Outgoing sessions"};
constexpr std::array directions = {"incoming", "outgoing"};

/// A line of a record about a single thing.
struct list_field {
    const char* field;
    const char* label;
    value_form form = plainly;
};

struct list_view {
    const char* record;
    std::span<const char* const> within;  ///< records in which the fields are embedded
    std::span<const list_field> fields;
};

constexpr list_field parameter_fields[] = {
    {"Version", "Protocol version"},
    {"Port", "Port"},
    {"Vrf", "VRFs", servers},
    {"Netconfport", "NETCONF port"},
    {"Netconfvrf", "NETCONF VRFs", servers},
    {"Netconfver", "NETCONF version"},
    {"Hostkeyalgo", "Host key algorithms", comma_separated},
    {"Kexalgo", "Key exchange algorithms", comma_separated},
    {"Cipheralgo", "Ciphers", comma_separated},
    {"Macalgo", "MACs", comma_separated},
    {"Backupserver", "Backup server"},
    {"Trustpointhost", "Host trustpoint"},
    {"Trustpointuser", "User trustpoints", comma_separated},
    {"Dscp", "DSCP"},
    {"Ratelimit", "Rate limit", {.unit = " a minute"}},
    {"Sessionlimit", "Session limit"},
    {"Rekeytime", "Rekey time", {.unit = " minutes"}},
    {"Rekeyvolume", "Rekey volume", {.unit = " MB"}},
    {"Windowscalefactor", "Window scale factor"},
    {"Passwordauthen", "Password authentication"},
    {"Keyboardinteractiveauthen", "Keyboard-interactive authentication"},
    {"Pubkeyauthen", "Public key authentication"},
    {"Certificateauthen", "Certificate authentication"},
    {"Portforwarding", "Port forwarding"},
    {"Maxauthlimit", "Authentication attempts"},
    {"CertificateUsername", "User name in certificates"},
};

constexpr list_field telemetry_fields[] = {
    {"Enable", "Enabled"},
    {"ProtocolVersion", "Protocol version", {.enumeration = "openconfig_system_terminal_protocol_version_"}},
    {"Timeout", "Timeout", {.unit = " seconds"}},
    {"RateLimit", "Rate limit", {.unit = " a minute"}},
    {"SessionLimit", "Session limit"},
};

constexpr const char* telemetry_state[] = {"SshServer", "State"};

constexpr list_view list_views[] = {
    {"ssh_server_params", {}, parameter_fields},
    {"overlay_crypto_ssh_system", telemetry_state, telemetry_fields},
};

/// The reads about sessions below a session tree.
constexpr std::string_view session_items[] = {"brief", "detail", "rekey"};

/// A session's cell. A value that is the same in both directions is shown once.
ctl_cell session_cell(const control_json& session, const session_column& column) {
    const control_json& value = member(session, column.field);
    if (column.cell != nullptr) {
        return column.cell(value);
    }
    ctl_cell cell = {value_text(value, column.form)};
    if (column.out_field != nullptr) {
        const std::string out = value_text(member(session, column.out_field), column.form);
        if (out != cell[0]) {
            cell = {"in " + cell[0], "out " + out};
        }
    }
    return cell;
}

bool is_shown(const session_column& column, const control_json& sessions) {
    return !column.only_when_known ||
           std::any_of(sessions.begin(), sessions.end(), [&column](const control_json& session) {
               return session_cell(session, column) != ctl_cell{nothing};
           });
}

std::string silent_text(int64_t count) {
    return std::to_string(count) + (count == 1 ? " session" : " sessions") + " did not answer";
}

/// The number of sessions in a direction ("incoming") that are missing from the list. An element without an id stands
/// for a session that did not answer. Sessions may have begun or ended while the answer was being prepared.
int64_t silent_sessions(const control_json& answer, const char* direction, const control_json& sessions) {
    const control_json& total = member(member(answer, "sessions"), direction);
    if (!total.is_number_integer()) {
        return 0;
    }
    const auto shown =
        !sessions.is_array() ? 0 : std::count_if(sessions.begin(), sessions.end(), [](const control_json& session) {
            const control_json& id = member(session, "SessionID");
            return id.is_number_integer() && !is_unknown(id.get<int64_t>());
        });
    return std::max<int64_t>(total.get<int64_t>() - shown, 0);
}

std::string sessions_text(const control_json& sessions, std::span<const session_column> columns, size_t width,
                          size_t indent, int64_t silent = 0) {
    if (!sessions.is_array() || sessions.empty()) {
        return std::string(indent, ' ') + (silent == 0 ? "no sessions" : silent_text(silent)) + '\n';
    }
    ctl_table table;
    table.rows.resize(sessions.size());
    for (const session_column& column : columns) {
        if (!is_shown(column, sessions)) {
            continue;
        }
        table.columns.push_back({column.heading, !column.may_wrap});
        for (size_t index = 0; index < sessions.size(); index++) {
            table.rows[index].push_back(session_cell(sessions[index], column));
        }
    }
    return ctl_table_text(table, width, indent);
}

std::string session_view_text(const session_view& view, const control_json& answer, size_t width) {
    const control_json& data = member(answer, "data");
    if (view.lists[0] == no_lists) {
        return sessions_text(data, view.columns, width, 0);
    }
    std::string text;
    for (size_t index = 0; index < view.lists.size(); index++) {
        const control_json& sessions = member(data, view.lists.at(index));
        text +=
            (text.empty() ? "" : "\n") + std::string(list_headings.at(index)) + '\n' +
            sessions_text(sessions, view.columns, width, 2, silent_sessions(answer, directions.at(index), sessions));
    }
    return text;
}

std::string list_view_text(const list_view& view, const control_json& data, size_t width) {
    const control_json* record = &data;
    for (const char* name : view.within) {
        record = &member(*record, name);
    }
    std::vector<ctl_list_row> rows;
    for (const list_field& field : view.fields) {
        rows.push_back({field.label, cell_of(member(*record, field.field), field.form), field.form.breaks});
    }
    return ctl_list_text(rows, width, 0);
}

template <class view_row>
const view_row* find_view(std::span<const view_row> views, std::string_view record) {
    const auto found =
        std::find_if(views.begin(), views.end(), [record](const view_row& view) { return record == view.record; });
    return found == views.end() ? nullptr : &*found;
}

/// Returns null if no sessions are read at the path.
const control_session_tree* find_session_tree(std::string_view path) {
    if (path.ends_with('/')) {
        path.remove_suffix(1);
    }
    const control_session_tree* tree = control_find_session_tree(path);
    const bool is_read = tree != nullptr && std::find(std::begin(session_items), std::end(session_items),
                                                      path.substr(tree->path.size())) != std::end(session_items);
    return is_read ? tree : nullptr;
}

/// The list of sessions in one direction, whichever record the answer contains.
const control_json& sessions_of(const control_json& answer, const control_session_tree& tree, size_t direction) {
    const control_json& data = member(answer, "data");
    if (!tree.has_incoming || !tree.has_outgoing) {
        return data;
    }
    const session_view* view = find_view<session_view>(session_views, answer.value("record", ""));
    return view == nullptr || view->lists[0] == no_lists ? data : member(data, view->lists.at(direction));
}

int64_t all_silent_sessions(const control_json& answer, const control_session_tree& tree) {
    return (tree.has_incoming ? silent_sessions(answer, directions[0], sessions_of(answer, tree, 0)) : 0) +
           (tree.has_outgoing ? silent_sessions(answer, directions[1], sessions_of(answer, tree, 1)) : 0);
}

/// Says which sessions are missing from an answer; empty if none are.
std::string missing_sessions_text(const control_json& answer, const control_session_tree& tree) {
    if (answer.contains("sessions") && answer["sessions"].is_null()) {
        return "the session responder does not answer, so sessions may be missing";
    }
    const int64_t silent = all_silent_sessions(answer, tree);
    return silent == 0 ? "" : silent_text(silent);
}

/// The enumerations of a record's fields.
using field_enumerations = std::map<std::string_view, const char*>;

field_enumerations enumerations_of(std::string_view record) {
    field_enumerations fields = {{"ConnectionType", "connection_type_en"}};
    if (const session_view* view = find_view<session_view>(session_views, record)) {
        for (const session_column& column : view->columns) {
            fields[column.field] = column.form.enumeration;
            fields[column.out_field == nullptr ? column.field : column.out_field] = column.form.enumeration;
        }
    }
    if (const list_view* view = find_view<list_view>(list_views, record)) {
        for (const list_field& field : view->fields) {
            fields[field.field] = field.form.enumeration;
        }
    }
    std::erase_if(fields, [](const auto& field) { return *field.second == '\0'; });
    return fields;
}

/// An unnamed number stays what it is.
control_json named_value(const control_json& number, const char* enumeration) {
    const auto value = number.get<int64_t>();
    const char* name = ctl_value_name(enumeration, value);
    if (name != nullptr) {
        return name;
    }
    return is_unknown(value) ? control_json() : number;
}

void name_values(control_json& json, const field_enumerations& fields) {
    for (auto& [name, value] : json.items()) {
        const auto field = json.is_object() ? fields.find(name) : fields.end();
        if (field != fields.end() && value.is_number_integer()) {
            value = named_value(value, field->second);
        } else if (value.is_structured()) {
            name_values(value, fields);
        }
    }
}

}  // namespace

std::string ctl_show_text(const control_json& answer, size_t width) {
    const control_json& data = member(answer, "data");
    const std::string record = answer.value("record", "");
    if (const session_view* view = find_view<session_view>(session_views, record)) {
        return session_view_text(*view, answer, width);
    }
    if (const list_view* view = find_view<list_view>(list_views, record)) {
        return list_view_text(*view, data, width);
    }
    return ctl_data_text(data, width);
}

void ctl_name_values(control_json& answer) {
    const std::string record = answer.value("record", "");
    if (!record.empty() && answer.contains("data")) {
        name_values(answer["data"], enumerations_of(record));
    }
}

void ctl_explain_sessions(const control_json& request, control_json& answer) {
    const std::string path = answer.value("path", request.value("path", ""));
    const control_session_tree* tree = request.value("call", "") == "show" ? find_session_tree(path) : nullptr;
    if (tree == nullptr) {
        return;
    }
    const control_result result = control_result_of_name(answer.value("result", ""));
    const std::string missing = missing_sessions_text(answer, *tree);
    if (result == control_result::no_data) {
        answer["message"] = path + ": " + (missing.empty() ? "no sessions" : missing);
        answer.erase("sessions");
    } else if (result == control_result::done && !missing.empty()) {
        answer["warnings"].push_back(missing);
    }
}
