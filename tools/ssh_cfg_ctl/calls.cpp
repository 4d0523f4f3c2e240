#include "ssh_cfg_ctl/calls.h"

#include <cstdio>
#include <optional>

#include "common/number.h"
#include "common/text.h"
#include "ssh_cfg_ctl/backup.h"
#include "ssh_cfg_ctl/change_text.h"
#include "ssh_cfg_ctl/failures.h"
#include "ssh_cfg_ctl/file.h"
#include "ssh_cfg_ctl/history.h"
#include "ssh_cfg_ctl/item_help.h"
#include "ssh_cfg_ctl/keys.h"
#include "ssh_cfg_ctl/local.h"
#include "ssh_cfg_ctl/options.h"
#include "ssh_cfg_ctl/print.h"
#include "ssh_cfg_ctl/session_requests.h"
#include "ssh_cfg_ctl/sessions.h"
#include "ssh_cfg_ctl/show.h"
#include "ssh_cfg_ctl/status.h"
#include "ssh_cfg_ctl/terminal.h"

namespace {

using argument_list = std::vector<std::string>;

// JSON carries only text: any other bytes would reach the agent altered.
ctl_request not_text(const std::string& argument) {
    return ctl_request_problem(control_result::refused, "\"" + text_escape(argument, 80) + "\" is not valid UTF-8");
}

const std::string* find_no_text(const argument_list& arguments) {
    for (const std::string& argument : arguments) {
        if (!text_is_utf8(argument)) {
            return &argument;
        }
    }
    return nullptr;
}

/// Removes the option --check, and adds it to the request.
void move_check(argument_list& arguments, control_json& request) {
    if (ctl_take_flag(arguments, "--check")) {
        request["check"] = true;
    }
}

/// Removes the option --note, and adds its value to the request.
bool move_note(argument_list& arguments, control_json& request) {
    const std::optional<std::string> note = ctl_take_value(arguments, "--note");
    if (note.has_value()) {
        request["note"] = *note;
    }
    return !note.has_value() || text_is_utf8(*note);
}

ctl_request set_request(const argument_list& given) {
    argument_list arguments = given;
    control_json request = {{"call", "set"}};
    move_check(arguments, request);
    if (!move_note(arguments, request) || arguments.empty() || arguments.size() > 2) {
        return ctl_wrong_arguments();
    }
    request["path"] = arguments[0];
    if (arguments.size() == 2) {
        request["word"] = arguments[1];
    }
    return ctl_request_of(std::move(request));
}

/// The request of a deletion, which may concern something that is absent.
ctl_request deletion(control_json document, bool absent_ok) {
    if (absent_ok) {
        document["absent_ok"] = true;
    }
    return ctl_request_of(std::move(document));
}

template <const char* call_name>
ctl_request path_request(const argument_list& arguments) {
    if (arguments.size() != 1) {
        return ctl_wrong_arguments();
    }
    return ctl_request_of({{"call", call_name}, {"path", arguments[0]}});
}

ctl_request delete_request(const argument_list& given) {
    argument_list arguments = given;
    control_json request = {{"call", "delete"}};
    const bool absent_ok = ctl_take_flag(arguments, "--absent-ok");
    move_check(arguments, request);
    if (!move_note(arguments, request) || arguments.size() != 1) {
        return ctl_wrong_arguments();
    }
    request["path"] = arguments[0];
    return deletion(std::move(request), absent_ok);
}

template <const char* call_name>
ctl_request bare_request(const argument_list& arguments) {
    return arguments.empty() ? ctl_request_of({{"call", call_name}}) : ctl_wrong_arguments();
}

constexpr char get_name[] = "get";
constexpr char show_name[] = "show";
constexpr char dump_name[] = "dump";
constexpr char verify_name[] = "verify";
constexpr char repair_name[] = "repair";
constexpr char confirm_name[] = "confirm";
constexpr char history_name[] = "history";
constexpr char sessions_name[] = "sessions";

ctl_request watch_request(const argument_list& given) {
    argument_list arguments = given;
    control_json request = {{"call", "watch"}};
    if (ctl_take_flag(arguments, "--sessions")) {
        request["sessions"] = true;
    }
    return arguments.empty() ? ctl_request_of(std::move(request)) : ctl_wrong_arguments();
}

ctl_request list_request(const argument_list& arguments) {
    const bool all = !arguments.empty() && arguments[0] == "--all";
    if (arguments.size() != (all ? 2 : 1)) {
        return ctl_wrong_arguments();
    }
    control_json request = {{"call", "list"}, {"path", arguments.back()}};
    if (all) {
        request["all"] = true;
    }
    return ctl_request_of(std::move(request));
}

/// Several words are one text.
ctl_request help_request(const argument_list& arguments) {
    std::string text;
    for (const std::string& argument : arguments) {
        text += (text.empty() ? "" : " ") + argument;
    }
    return ctl_request_of({{"call", "help"}, {"path", text}});
}

constexpr unsigned confirm_minutes_max = 1440;

/// Removes the options of load, and adds their values to the request. Returns null or the problem.
control_json move_load_options(argument_list& arguments, control_json& request) {
    request["check"] = ctl_take_flag(arguments, "--check");
    if (ctl_take_flag(arguments, "--absent-ok")) {
        request["absent_ok"] = true;
    }
    if (ctl_take_flag(arguments, "--replace")) {
        request["replace"] = true;
    }
    if (const std::optional<std::string> minutes = ctl_take_value(arguments, "--confirm"); minutes.has_value()) {
        const std::optional<unsigned> number = number_parse<unsigned>(*minutes, 1, confirm_minutes_max);
        if (!number.has_value()) {
            return control_answer(control_result::usage,
                                  "--confirm: expected 1 to 1440 minutes, not '" + text_escape(*minutes, 40) + "'");
        }
        request["confirm"] = *number;
    }
    return {};
}

ctl_request load_request(const argument_list& given) {
    argument_list arguments = given;
    control_json request = {{"call", "load"}};
    control_json problem = move_load_options(arguments, request);
    if (!problem.is_null()) {
        return {{}, problem, {}};
    }
    if (!move_note(arguments, request) || arguments.size() != 1 ||
        (arguments[0] != "-" && arguments[0].starts_with("--"))) {
        return ctl_wrong_arguments();
    }
    ctl_source source;
    std::optional<control_json> items = ctl_read_items_file(arguments[0], problem, &source);
    if (!items.has_value()) {
        return {{}, problem, {}};
    }
    request["items"] = std::move(*items);
    // A file with duplicates is not loaded, but what else is wrong with it is to be reported, too.
    request["check"] = request["check"].get<bool>() || ctl_has_duplicates(source);
    return {std::move(request), {}, std::move(source)};
}

/// The number of a commit, as typed.
std::optional<uint64_t> commit_number(const std::string& argument) {
    return number_parse<uint64_t>(argument, 0, UINT32_MAX);
}

ctl_request rollback_request(const argument_list& given) {
    argument_list arguments = given;
    control_json request = {{"call", "rollback"}, {"check", ctl_take_flag(arguments, "--check")}};
    const bool has_note = move_note(arguments, request);
    const std::optional<uint64_t> number = arguments.size() == 1 ? commit_number(arguments[0]) : std::nullopt;
    if (!has_note || !number.has_value()) {
        return ctl_wrong_arguments();
    }
    request["number"] = *number;
    return ctl_request_of(std::move(request));
}

ctl_request diff_request(const argument_list& arguments) {
    control_json request = {{"call", "diff"}};
    const std::optional<uint64_t> first = arguments.empty() ? std::nullopt : commit_number(arguments[0]);
    const std::optional<uint64_t> second = arguments.size() < 2 ? std::nullopt : commit_number(arguments[1]);
    if (arguments.size() == 1 && !first.has_value()) {
        control_json problem;
        std::optional<control_json> items = ctl_read_items_file(arguments[0], problem);
        if (!items.has_value()) {
            return {{}, problem, {}};
        }
        request["items"] = std::move(*items);
        return ctl_request_of(std::move(request));
    }
    if (arguments.size() > 2 || (!arguments.empty() && !first.has_value()) ||
        (arguments.size() == 2 && !second.has_value())) {
        return ctl_wrong_arguments();
    }
    if (first.has_value()) {
        request["from"] = *first;
    }
    if (second.has_value()) {
        request["to"] = *second;
    }
    return ctl_request_of(std::move(request));
}

ctl_request vrf_request(const argument_list& arguments) {
    if (arguments.size() == 1 && arguments[0] == "list") {
        return ctl_request_of({{"call", "vrf_list"}});
    }
    if (arguments.size() == 2 && arguments[0] == "unblock") {
        return ctl_request_of({{"call", "vrf_unblock"}, {"name", arguments[1]}});
    }
    return ctl_wrong_arguments();
}

ctl_request debug_request(const argument_list& arguments) {
    if (arguments.empty()) {
        return ctl_request_of({{"call", "debug"}});
    }
    if (arguments.size() != 2 || (arguments[1] != "on" && arguments[1] != "off")) {
        return ctl_wrong_arguments();
    }
    return ctl_request_of({{"call", "debug"}, {"flag", arguments[0]}, {"on", arguments[1] == "on"}});
}

ctl_request trace_request(const argument_list& arguments) {
    if (arguments.size() != 1 || (arguments[0] != "error" && arguments[0] != "event")) {
        return ctl_wrong_arguments();
    }
    return ctl_request_of({{"call", "trace"}, {"buffer", arguments[0]}});
}

/// The lines of a file.
control_json lines_of(std::string_view text) {
    control_json lines = control_json::array();
    while (!text.empty()) {
        const size_t end = text.find('\n');
        lines.push_back(std::string(text.substr(0, end)));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return lines;
}

/// `arguments` are those without options; `options` contains the members for these.
ctl_request acl_set_request(const argument_list& arguments, const control_json& options) {
    control_json problem;
    const std::optional<std::string> text = ctl_read_file(arguments[3], problem);
    if (!text.has_value()) {
        return {{}, problem, {}};
    }
    control_json request = {{"call", "acl_set"}, {"family", arguments[1]}, {"name", arguments[2]}};
    request.update(options);
    const size_t start = text->find_first_not_of(" \t\r\n");
    if (start != std::string::npos && (*text)[start] == '[') {
        std::string error;
        std::optional<control_json> entries = control_json_parse(*text, error);
        if (!entries.has_value()) {
            return ctl_request_problem(control_result::refused, arguments[3] + ": " + error);
        }
        request["entries"] = std::move(*entries);
    } else if (!text_is_utf8(*text)) {
        return ctl_request_problem(control_result::refused, arguments[3] + ": not valid UTF-8");
    } else {
        request["lines"] = lines_of(*text);
    }
    return ctl_request_of(std::move(request));
}

ctl_request acl_request(const argument_list& given) {
    argument_list arguments = given;
    control_json set_options = control_json::object();
    move_check(arguments, set_options);
    if (ctl_take_flag(arguments, "--empty")) {
        set_options["empty"] = true;
    }
    const bool absent_ok = std::erase(arguments, "--absent-ok") != 0;
    const std::string verb = arguments.empty() ? "" : arguments[0];
    if ((!set_options.empty() && verb != "set") || (absent_ok && verb != "delete")) {
        return ctl_wrong_arguments();
    }
    if (verb == "list" && arguments.size() == 1) {
        return ctl_request_of({{"call", "acl_list"}});
    }
    if (arguments.size() < 3 || (arguments[1] != "ipv4" && arguments[1] != "ipv6")) {
        return ctl_wrong_arguments();
    }
    if (verb == "set" && arguments.size() == 4) {
        return acl_set_request(arguments, set_options);
    }
    if ((verb == "show" || verb == "delete") && arguments.size() == 3) {
        return deletion({{"call", "acl_" + verb}, {"family", arguments[1]}, {"name", arguments[2]}}, absent_ok);
    }
    return ctl_wrong_arguments();
}

ctl_request key_import_request(const argument_list& arguments, bool replaces) {
    control_json problem;
    std::optional<std::string> text = ctl_read_file(arguments[2], problem);
    if (!text.has_value()) {
        return {{}, problem, {}};
    }
    if (!text_is_utf8(*text)) {
        return ctl_request_problem(control_result::refused, arguments[2] + ": not valid UTF-8");
    }
    control_json document = {{"call", "key_import"}, {"user", arguments[1]}, {"text", std::move(*text)}};
    if (replaces) {
        document["replace"] = true;
    }
    return ctl_request_of(std::move(document));
}

/// A call on a user's keys, or on the key with the fingerprint that follows the user's name.
control_json keys_document(const char* call, const argument_list& arguments) {
    control_json document = {{"call", call}, {"user", arguments[1]}};
    if (arguments.size() > 2) {
        document["fingerprint"] = arguments[2];
    }
    return document;
}

ctl_request key_request(const argument_list& given) {
    argument_list arguments = given;
    const bool absent_ok = std::erase(arguments, "--absent-ok") != 0;
    const bool replaces = std::erase(arguments, "--replace") != 0;
    const std::string verb = arguments.empty() ? "" : arguments[0];
    if ((absent_ok && verb != "delete") || (replaces && verb != "import")) {
        return ctl_wrong_arguments();
    }
    if (verb == "list" && arguments.size() <= 2) {
        return ctl_request_of(arguments.size() == 1 ? control_json{{"call", "key_list"}}
                                                    : keys_document("key_list", arguments));
    }
    if (verb == "import" && arguments.size() == 3) {
        return key_import_request(arguments, replaces);
    }
    if (verb == "export" && (arguments.size() == 2 || arguments.size() == 3)) {
        return ctl_request_of(keys_document("key_export", arguments));
    }
    if (verb == "delete" && (arguments.size() == 2 || arguments.size() == 3)) {
        return deletion(keys_document("key_delete", arguments), absent_ok);
    }
    return ctl_wrong_arguments();
}

constexpr unsigned reload_timeout_max = 3600;

ctl_request reload_request(const argument_list& arguments) {
    if (arguments.empty()) {
        return ctl_request_of({{"call", "reload"}});
    }
    if (arguments.size() != 2 || arguments[0] != "--timeout") {
        return ctl_wrong_arguments();
    }
    const std::optional<unsigned> seconds = number_parse<unsigned>(arguments[1], 1, reload_timeout_max);
    if (!seconds) {
        return ctl_request_problem(control_result::usage, "reload timeout: expected 1 to 3600 seconds, not '" +
                                                              text_escape(arguments[1], 40) + "'");
    }
    return ctl_request_of({{"call", "reload"}, {"timeout", *seconds}});
}

const control_json& data_of(const control_json& answer) {
    static const control_json none;
    const auto data = answer.find("data");
    return data == answer.end() ? none : *data;
}

std::string no_text(const control_json& /*answer*/) {
    return {};
}

std::string value_text(const control_json& answer) {
    return control_json_text(data_of(answer)) + '\n';
}

std::string names_text(const control_json& answer) {
    if (!data_of(answer).empty() && data_of(answer)[0].is_object()) {
        return ctl_children_text(data_of(answer), ctl_output_width());
    }
    std::string text;
    for (const control_json& name : data_of(answer)) {
        text += (name.is_string() ? name.get_ref<const std::string&>() : control_json_text(name)) + '\n';
    }
    return text;
}

std::string help_text(const control_json& answer) {
    return ctl_item_help_text(data_of(answer), ctl_output_width());
}

std::string dump_text(const control_json& answer) {
    return ctl_configuration_text(data_of(answer));
}

/// For a read, its data; for a change, nothing.
std::string data_text(const control_json& answer) {
    return answer.contains("data") ? ctl_show_text(answer, ctl_output_width()) : std::string();
}

std::string hexadecimal(uint32_t number) {
    char text[16];
    snprintf(text, sizeof text, "0x%x", number);
    return text;
}

std::string trace_name(const control_json& entry) {
    const auto name = entry.find("name");
    const bool is_named = name != entry.end() && name->is_string();
    return is_named ? name->get<std::string>() : hexadecimal(entry.value("point", 0U));
}

/// A status beyond the errno values is one of the platform's codes, which are known by their hexadecimal form.
std::string trace_argument_text(const std::string& label, const control_json& value) {
    constexpr int64_t errno_max = 4095;
    if (value.is_string()) {
        return label + " \"" + text_escape(value.get_ref<const std::string&>(), 1024) + '"';
    }
    const bool is_code = label == "status" && value.is_number_integer() && value.get<int64_t>() > errno_max;
    return label + ' ' + (is_code ? hexadecimal(value.get<uint32_t>()) : control_json_text(value));
}

std::string trace_arguments_text(const control_json& entry) {
    std::string text;
    const control_json arguments = entry.value("arguments", control_json::object());
    for (const auto& [label, value] : arguments.items()) {
        text += (text.empty() ? "  " : ", ") + trace_argument_text(label, value);
        if (label == "status" && entry.contains("error")) {
            text += " (" + text_escape(entry.value("error", ""), 1024) + ')';
        }
    }
    return text;
}

std::string trace_text(const control_json& answer) {
    std::string text;
    for (const control_json& entry : data_of(answer)) {
        text += entry.value("time", "") + "  " + trace_name(entry) + trace_arguments_text(entry) + '\n';
    }
    return text.empty() ? "no entries\n" : text;
}

/// For one list, its lines; for all lists, a table; for a change, the number of entries stored.
std::string acl_text(const control_json& answer) {
    if (const auto lines = answer.find("lines"); lines != answer.end()) {
        std::string text;
        for (const control_json& line : *lines) {
            text += line.get<std::string>() + '\n';
        }
        return text.empty() ? "no entries\n" : text;
    }
    if (answer.value("check", false)) {
        return ctl_list_check_text(answer);
    }
    if (const auto entries = answer.find("entries"); entries != answer.end()) {
        return control_json_text(*entries) + (*entries == 1 ? " entry" : " entries") +
               (answer.value("changed", true) ? " stored\n" : ", unchanged\n");
    }
    const control_json& lists = data_of(answer);
    return lists.is_array() && lists.empty() ? "no access lists\n"
           : lists.is_array()                ? ctl_data_text(lists, ctl_output_width())
                                             : "";
}

std::string joined(const control_json& texts) {
    std::string text;
    for (const control_json& each : texts) {
        text += (text.empty() ? "" : ", ") + each.get<std::string>();
    }
    return text;
}

/// The VRFs as a table, their lists of services as texts.
std::string vrfs_text(control_json vrfs) {
    for (control_json& vrf : vrfs) {
        for (auto& [name, value] : vrf.items()) {
            value = value.is_array() ? control_json(joined(value)) : value;
        }
    }
    return ctl_records_text(vrfs, ctl_output_width());
}

/// For the list, a table; for an unblocked VRF, the services that were opened.
std::string vrf_text(const control_json& answer) {
    const auto vrf = answer.find("vrf");
    if (vrf == answer.end()) {
        return vrfs_text(data_of(answer));
    }
    const std::string name = text_escape(vrf->get_ref<const std::string&>(), 80);
    const std::string services = joined(data_of(answer));
    return services.empty() ? "nothing is blocked in VRF " + name + '\n'
                            : "opened in VRF " + name + ": " + services + '\n';
}

std::string sessions_text(const control_json& answer) {
    return ctl_sessions_text(data_of(answer), ctl_output_width());
}

std::string failures_text(const control_json& answer) {
    return ctl_failures_text(data_of(answer), ctl_output_width());
}

std::string ended_sessions_text(const control_json& answer) {
    return ctl_ended_sessions_text(data_of(answer));
}

std::string keys_text(const control_json& answer) {
    return ctl_keys_text(answer, ctl_output_width());
}

ctl_request status_request(const argument_list& arguments) {
    if (arguments.empty()) {
        return ctl_request_of({{"call", "status"}});
    }
    return arguments.size() == 1 && arguments[0] == "--check" ? ctl_request_of({{"call", "status"}, {"check", true}})
                                                              : ctl_wrong_arguments();
}

std::string status_text(const control_json& answer) {
    return ctl_status_text(data_of(answer), ctl_output_width());
}

/// One difference per line, with `prefix` before it.
std::string differences_text(const control_json& differences, const std::string& prefix) {
    std::string text;
    for (const control_json& difference : differences) {
        text += prefix + text_escape(difference.value("subject", ""), 1024) + ": " +
                text_escape(difference.value("text", ""), 4096) + '\n';
    }
    return text;
}

std::string verify_text(const control_json& answer) {
    const std::string text = differences_text(data_of(answer), "");
    return text.empty() ? "no differences\n" : text;
}

std::string repair_text(const control_json& answer) {
    const control_json& data = data_of(answer);
    const std::string text = differences_text(data.value("repaired", control_json::array()), "repaired: ") +
                             differences_text(data.value("remaining", control_json::array()), "not repaired: ");
    return text.empty() ? "nothing to repair\n" : text;
}

/// Of a call that makes its requests itself.
ctl_request no_request(const argument_list& /*arguments*/) {
    return ctl_wrong_arguments();
}

constexpr ctl_call_row calls[] = {
    {"set", "[--check] [--note TEXT] PATH [VALUE]", "store one item; VALUE is JSON, or a bare word for a string",
     set_request, ctl_change_text},
    {"delete", "[--check] [--absent-ok] [--note TEXT] PATH", "delete one item, or all below a PATH that ends in '/'",
     delete_request, ctl_change_text},
    {"load", "[--check] [--absent-ok] [--replace] [--confirm MINUTES] [--note TEXT] FILE",
     "store all items of a JSON object {path: value, or null to delete}, all or nothing; with --replace, delete all others; "
     "with --confirm, undo it unless confirm follows in time",
     load_request, ctl_load_text},
    {"confirm", "", "keep what load --confirm has stored", bare_request<confirm_name>, ctl_confirmed_text},
    {"history", "", "print the latest commits: number, time, user, call, number of changes and note",
     bare_request<history_name>, ctl_history_text},
    {"diff", "[COMMIT [COMMIT] | FILE]",
     "print what the latest commit changed, what has changed since COMMIT or between two, or how FILE differs from what is "
     "stored",
     diff_request, ctl_diff_text},
    {"rollback", "[--check] [--note TEXT] COMMIT", "return to the configuration as it was after COMMIT",
     rollback_request, ctl_load_text},
    {"backup", "FILE",
     "write configuration, access lists, imported keys, host keys and the files of the platform to FILE", no_request,
     ctl_backup_text, false, ctl_backup},
    {"restore", "[--skip-missing-users] FILE", "restore what backup has written", no_request, ctl_backup_text, false,
     ctl_restore},
    {"get", "PATH", "print the stored value of an item", path_request<get_name>, value_text},
    {"list", "[--all] PATH",
     "print the names configured directly below PATH; with --all everything that can be configured there, with its value",
     list_request, names_text},
    {"dump", "", "print the stored configuration, with access lists and imported keys, in the format that load reads",
     bare_request<dump_name>, dump_text},
    {"help", "[CALL|PATH|WORD...]",
     "print this summary, or explain a call, an item, the items below a path, or those in which the words are found",
     help_request, help_text},
    {"show", "PATH", "print operational data", path_request<show_name>, data_text},
    {"watch", "[--sessions]",
     "print telemetry as it happens, one JSON document per line, until interrupted; with --sessions, logins, logouts and "
     "failed logins",
     watch_request, no_text, true},
    {"acl",
     "set [--check] [--empty] ipv4|ipv6 NAME FILE, show ipv4|ipv6 NAME, delete [--absent-ok] ipv4|ipv6 NAME, or list",
     "store, print, delete or list access lists; FILE is a JSON array of entries, or lines such as "
     "\"10 permit tcp 10.0.0.0/8 any eq ssh log\"",
     acl_request, acl_text},
    {"key",
     "list [USER], import [--replace] USER FILE, export USER [FINGERPRINT], or delete [--absent-ok] USER [FINGERPRINT]",
     "list users' public keys, import those in FILE, print them as lines of an authorized_keys file, or delete imported ones; "
     "FILE contains lines such as \"ssh-ed25519 AAAA... comment\"",
     key_request, keys_text},
    {"vrf", "list, or unblock NAME",
     "print the VRFs, their namespaces and their protection, or open the ports that a failure keeps blocked in one of them",
     vrf_request, vrf_text},
    {"sessions", "", "print the servers' sessions, and the connections on which nobody has logged in yet",
     bare_request<sessions_name>, sessions_text},
    {"session", "end ID, end --user USER, end --vrf NAME, or end --pid PID",
     "end sessions of the servers, or connections on which nobody has logged in yet", ctl_session_request,
     ended_sessions_text},
    {"failures", "[--lines N] [VRF]", "print the latest failed logins, 20 or N of them, and why they failed",
     ctl_failures_request, failures_text},
    {"local", "show [VRF], check [VRF [FILE]], edit [VRF], set VRF FILE, or apply",
     "print the local directives in force, check, edit or replace those of a VRF or, without VRF or with \"all\", of all VRFs, "
     "or have the servers take over files that were changed otherwise",
     no_request, ctl_local_text, false, ctl_local},
    {"debug", "[FLAG on|off]", "print the debug flags, or turn one on or off", debug_request, data_text},
    {"trace", "error|event", "print the last failures or events", trace_request, trace_text},
    {"status", "[--check]",
     "print how the agent, its VRFs and their servers are; with --check, end with 1 if not as configured",
     status_request, status_text},
    {"verify", "", "compare the configuration with the machine and print every difference", bare_request<verify_name>,
     verify_text},
    {"repair", "", "remove the differences that verify prints, and print what was done", bare_request<repair_name>,
     repair_text},
    {"reload", "[--timeout SECONDS]",
     "stop servers and sessions before the router reloads, and wait until they have ended", reload_request, no_text},
};

}  // namespace

std::span<const ctl_call_row> ctl_calls() {
    return calls;
}

const ctl_call_row* ctl_find_call(std::string_view name) {
    for (const ctl_call_row& row : calls) {
        if (name == row.name) {
            return &row;
        }
    }
    return nullptr;
}

ctl_request ctl_make_request(const ctl_call_row& row, const std::vector<std::string>& arguments) {
    const std::string* no_text = find_no_text(arguments);
    return no_text == nullptr ? row.request(arguments) : not_text(*no_text);
}
