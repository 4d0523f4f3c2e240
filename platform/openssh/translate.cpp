#include "openssh/translate.h"

#include <algorithm>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "common/number.h"
#include "common/text.h"
#include "openssh/config_line.h"
#include "openssh/keyword_table.h"
#include "openssh/text.h"
#include "openssh/wrapper/session_command.h"

namespace openssh {

const file_kind server_file_kind = {
    .rows = server_keyword_rows(),
    .program = "sshd",
    .made_for = "the server",
    .first_lines = "PidFile none\n",
    .is_server = true,
};

const file_kind client_file_kind = {
    .rows = client_keyword_rows(),
    .program = "ssh",
    .made_for = "a client",
    .first_lines = "",
    .is_server = false,
};

namespace {

constexpr std::string_view fips_mode_line = "# FIPS mode: on\n";
constexpr std::string_view no_fips_mode_line = "# FIPS mode: off\n";
constexpr std::string_view blanks = " \t";

struct translator {
    const translation_input& input;
    translation result = {};
    size_t remarks_not_kept = 0;
    bool ended = false;
    bool has_host_key = false;
    /// What has been written: the lower-case keyword, with the value if the keyword may be repeated.
    std::unordered_set<std::string> written = {};
    /// List keywords with a line that became empty, and the number of that line.
    std::unordered_map<std::string, size_t> emptied = {};
};

void add_remark(translator& state, severity level, std::string text) {
    // The operator needs errors most, and there are few of them.
    if (state.result.remarks.size() < most_remarks - 1 || level == severity::error) {
        state.result.remarks.push_back({level, std::move(text)});
    } else {
        ++state.remarks_not_kept;
    }
}

std::string repetition_key(const keyword_row& row, std::string_view value) {
    std::string key = lower_case(row.output_keyword());
    if (row.repeats == repetition::by_value) {
        key.append(" ").append(value);
    } else if (row.repeats == repetition::by_first_word) {
        key.append(" ").append(split(value, blanks).front());
    }
    return key;
}

/// Appends a line unless an earlier line makes sshd ignore or reject it.
bool write_line(translator& state, const keyword_row& row, std::string_view value, size_t line) {
    if (!state.written.insert(repetition_key(row, value)).second) {
        add_remark(state, severity::notice,
                   text_format("line %zu: %s %s ignored: an earlier line has set it", line, shown(row.keyword).c_str(),
                               shown(value).c_str()));
        return false;
    }
    state.result.text.append(row.output_keyword()).append(" ").append(value).append("\n");
    return true;
}

void pass_setting(translator& state, const keyword_row& row, const setting& found) {
    if (row.form(found.value)) {
        if (write_line(state, row, found.value, found.line) && row.form == is_port) {
            state.result.limits.ports.emplace_back(found.value);
        }
        return;
    }
    add_remark(state, severity::warning,
               text_format("line %zu: %s ignored: %s does not accept the value \"%s\"", found.line,
                           shown(row.keyword).c_str(), state.input.kind->program, shown(found.value).c_str()));
}

void remark_names(translator& state, const setting& found, const std::vector<std::string_view>& names,
                  const char* format) __attribute__((format(printf, 4, 0)));

/// Reports the names removed from a list. The format takes the line, the keyword and the names.
void remark_names(translator& state, const setting& found, const std::vector<std::string_view>& names,
                  const char* format) {
    constexpr size_t most_names = 64;
    if (names.empty()) {
        return;
    }
    std::string text;
    for (size_t i = 0; i < std::min(names.size(), most_names); ++i) {
        text.append(i == 0 ? "" : ",").append(shown(names[i]));
    }
    if (names.size() > most_names) {
        text += text_format(" and %zu more", names.size() - most_names);
    }
    const std::string keyword = shown(found.keyword);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    add_remark(state, severity::notice, text_format(format, found.line, keyword.c_str(), text.c_str()));
#pragma GCC diagnostic pop
}

list_cut cut_and_remark(translator& state, const keyword_row& row, const setting& found) {
    list_cut cut = cut_list(found.value, row.kind, *state.input.known, state.result.fips_mode);
    remark_names(state, found, cut.unknown, "line %zu: %s: ignored, not supported by this OpenSSH: %s");
    remark_names(state, found, cut.not_approved, "line %zu: %s: ignored, not approved in FIPS mode: %s");
    remark_names(state, found, cut.repeated, "line %zu: %s: ignored, duplicate: %s");
    return cut;
}

void translate_list(translator& state, const keyword_row& row, const setting& found) {
    if (!is_algorithm_list(found.value)) {
        add_remark(state, severity::warning,
                   text_format("line %zu: %s ignored: \"%s\" is not a list of names", found.line,
                               shown(row.keyword).c_str(), shown(found.value).c_str()));
        state.emptied.emplace(lower_case(row.output_keyword()), found.line);
        return;
    }
    const list_cut cut = cut_and_remark(state, row, found);
    if (cut.kept.empty()) {
        state.emptied.emplace(lower_case(row.output_keyword()), found.line);
        return;
    }
    write_line(state, row, joined(cut.kept), found.line);
}

void translate_additional_keys(translator& state, const keyword_row& row, const setting& found) {
    const list_cut cut = cut_and_remark(state, row, found);
    // In FIPS mode there is nothing to add to: the whole approved list is written at the end.
    if (!state.result.fips_mode && !cut.kept.empty()) {
        write_line(state, row, "+" + joined(cut.kept), found.line);
    }
}

void translate_host_keys(translator& state, const keyword_row& row, const setting& found) {
    if (found.value.empty()) {
        add_remark(state, severity::warning, text_format("line %zu: HostKey ignored: it names no file", found.line));
    }
    for (const std::string_view piece : split(found.value, ",")) {
        const std::string_view file = trimmed(piece);
        if (!row.form(file)) {
            add_remark(state, severity::warning,
                       text_format("line %zu: HostKey ignored: \"%s\" is not an absolute path", found.line,
                                   shown(file).c_str()));
        } else if (!state.input.key_is_usable(std::string(file))) {
            add_remark(state, severity::notice,
                       text_format("line %zu: HostKey %s ignored: no readable key file of that name", found.line,
                                   shown(file).c_str()));
        } else {
            state.has_host_key = write_line(state, row, file, found.line) || state.has_host_key;
        }
    }
}

/// As with sshd's own settings, the first usable line applies.
void set_limit(translator& state, const keyword_row& row, const setting& found) {
    uint32_t& limit = state.result.limits.*row.limited;
    const std::optional<uint32_t> value = number_parse<uint32_t>(found.value, 1, highest_limit);
    if (!value) {
        add_remark(state, severity::warning,
                   text_format("line %zu: %s ignored: \"%s\" is not a number from 1 to %u", found.line,
                               shown(row.keyword).c_str(), shown(found.value).c_str(), highest_limit));
    } else if (state.written.insert(repetition_key(row, found.value)).second) {
        limit = *value;
    } else if (limit != *value) {
        add_remark(state, severity::notice,
                   text_format("line %zu: %s %u ignored: an earlier line has set it", found.line,
                               shown(row.keyword).c_str(), *value));
    }
}

void leave_out(translator& state, const keyword_row& row, const setting& found) {
    add_remark(state, severity::notice,
               text_format("line %zu: %s ignored: %s", found.line, shown(row.keyword).c_str(), row.reason));
}

void end_settings(translator& state, const keyword_row& row, const setting& found) {
    add_remark(state, severity::warning,
               text_format("line %zu: %s ignored: %s", found.line, shown(row.keyword).c_str(), row.reason));
    state.ended = true;
}

void remark_fips_mode(translator& state, const keyword_row& row, const setting& found) {
    add_remark(state, severity::notice,
               text_format("line %zu: %s restricts the algorithm lists to the approved names", found.line,
                           shown(row.keyword).c_str()));
}

using line_handler = void (*)(translator& state, const keyword_row& row, const setting& found);

line_handler handler_of(treatment how) {
    struct handler_row {
        treatment how;
        line_handler handler;
    };
    constexpr handler_row handlers[] = {
        {treatment::pass, pass_setting},
        {treatment::list, translate_list},
        {treatment::additional_keys, translate_additional_keys},
        {treatment::host_keys, translate_host_keys},
        {treatment::limit, set_limit},
        {treatment::fips_mode, remark_fips_mode},
        {treatment::leave_out, leave_out},
        {treatment::end_of_settings, end_settings},
    };
    return std::find_if(std::begin(handlers), std::end(handlers),
                        [&](const handler_row& row) { return row.how == how; })
        ->handler;
}

void translate_line(translator& state, size_t number, std::string_view line) {
    if (state.ended) {
        return;
    }
    const setting found = parse_line(number, line);
    if (found.keyword.empty()) {
        return;
    }
    if (line.size() > longest_line) {
        add_remark(state, severity::warning,
                   text_format("line %zu: %s ignored: the line is longer than %zu bytes", number,
                               shown(found.keyword).c_str(), longest_line));
    } else if (has_control_character(trimmed(line))) {
        add_remark(state, severity::warning,
                   text_format("line %zu: %s ignored: the line contains a control character", number,
                               shown(found.keyword).c_str()));
    } else if (const keyword_row* row = find_keyword_row(state.input.kind->rows, found.keyword)) {
        handler_of(row->how)(state, *row, found);
    } else {
        add_remark(state, severity::warning,
                   text_format("line %zu: %s ignored: unknown keyword", number, shown(found.keyword).c_str()));
    }
}

void refuse(translator& state, std::string reason) {
    state.result.refused = true;
    add_remark(state, severity::error, std::move(reason));
}

/// The value in force instead of an absent or emptied list; empty for the program's own default.
std::vector<std::string_view> default_list(const translator& state, const keyword_row& row) {
    if (state.result.fips_mode) {
        return fips_default_list(*state.input.known, row.kind);
    }
    if (row.default_rank == nullptr) {
        return {};
    }
    return router_default_list(*state.input.known, row.kind, row.default_rank);
}

void settle_emptied_list(translator& state, const keyword_row& row, size_t line,
                         const std::vector<std::string_view>& instead) {
    const std::string keyword = shown(row.output_keyword());
    if (state.result.fips_mode) {
        refuse(state, text_format("line %zu: %s: the list is empty in FIPS mode; the file is not used", line,
                                  keyword.c_str()));
        return;
    }
    const std::string owner = instead.empty() ? std::string(state.input.kind->program) + "'s own" : "the router's";
    add_remark(
        state, severity::error,
        text_format("line %zu: %s: the list is empty; %s default is in force", line, keyword.c_str(), owner.c_str()));
    if (!instead.empty()) {
        write_line(state, row, joined(instead), line);
    }
}

/// Without a list the program would offer its own default, which differs from what the router shows. FIPS mode also
/// refuses a list that becomes empty.
void settle_list(translator& state, const keyword_row& row) {
    const std::string key = lower_case(row.output_keyword());
    if (state.written.count(key) != 0) {
        return;
    }
    const std::vector<std::string_view> instead = default_list(state, row);
    if (const auto emptied = state.emptied.find(key); emptied != state.emptied.end()) {
        settle_emptied_list(state, row, emptied->second, instead);
        state.emptied.erase(emptied);
    } else if (!instead.empty()) {
        write_line(state, row, joined(instead), 0);
    } else if (state.result.fips_mode) {
        refuse(state, text_format("%s: this OpenSSH supports no algorithm that is approved in FIPS mode",
                                  shown(row.output_keyword()).c_str()));
    }
}

/// sshd's own defaults would open what a router keeps closed, or bypass the accounts' PAM service.
void settle_setting(translator& state, const keyword_row& row) {
    if (!row.otherwise.empty() && state.written.count(repetition_key(row, row.otherwise)) == 0) {
        add_remark(state, severity::notice,
                   text_format("no usable %s line: \"%s\" is in force", shown(row.keyword).c_str(),
                               shown(row.otherwise).c_str()));
        write_line(state, row, row.otherwise, 0);
    }
}

/// Users' keys come from the key store, unless the file names another source. In FIPS mode the program leaves out the keys
/// that are not approved, so that they do not count even if a list of algorithms admits them.
void add_user_keys_program(translator& state) {
    const keyword_row& command = *find_keyword_row(state.input.kind->rows, "AuthorizedKeysCommand");
    const keyword_row& user = *find_keyword_row(state.input.kind->rows, "AuthorizedKeysCommandUser");
    const bool named =
        state.written.count(repetition_key(command, {})) + state.written.count(repetition_key(user, {})) != 0;
    if (!named && !state.input.user_keys_program.empty()) {
        write_line(state, command,
                   std::string(state.input.user_keys_program) + (state.result.fips_mode ? " --fips %u" : " %u"), 0);
        write_line(state, user, "root", 0);
    }
}

void settle(translator& state) {
    for (const keyword_row& row : state.input.kind->rows) {
        if (row.how == treatment::list) {
            settle_list(state, row);
        } else if (row.how == treatment::pass) {
            settle_setting(state, row);
        }
    }
    if (state.input.kind->is_server) {
        add_user_keys_program(state);
    }
    if (state.input.kind->is_server && !state.has_host_key) {
        refuse(state, "no usable host key; the file is not used");
    }
    if (state.remarks_not_kept != 0) {
        state.result.remarks.push_back(
            {severity::warning, text_format("%zu more remarks are not shown", state.remarks_not_kept)});
    }
}

/// The port for NETCONF must not be a second way to what SSH's access list protects. The session wrapper refuses everything
/// but the subsystem, because a forced command would replace the commands that users' keys are restricted to; without it
/// there are no sessions.
void confine_netconf_port(translator& state) {
    const std::vector<std::string>& ports = state.result.limits.ports;
    if (std::find(ports.begin(), ports.end(), netconf_port) == ports.end()) {
        return;
    }
    state.result.text += text_format(
        "Match LocalPort %s\n"
        "    DisableForwarding yes\n"
        "    PermitTTY no\n"
        "    PermitTunnel no\n"
        "    PermitUserRC no\n",
        netconf_port);
    // A forced command of a local Match block would replace the subsystem. Of several values the first applies.
    if (!state.result.local.blocks.empty() && state.input.sessions_are_wrapped) {
        state.result.text += "    ForceCommand none\n";
    }
    if (!state.input.sessions_are_wrapped) {
        state.result.text += "    ForceCommand /bin/false\n";
        add_remark(state, severity::error,
                   text_format("port %s takes no sessions: without their wrapper they cannot be confined to NETCONF",
                               netconf_port));
    }
}

/// The blocks come last, and behind that for NETCONF, which they cannot overrule then.
void add_local_directives(translator& state) {
    state.result.local = merge_local_directives(
        state.input.local_files,
        {.known = state.input.known, .fips_mode = state.result.fips_mode, .has_address = state.input.has_address},
        state.result.text);
    state.result.text = state.result.local.settings;
}

}  // namespace

bool asks_for_fips_mode(std::string_view text) {
    bool on = false;
    for_each_line(text, [&](size_t number, std::string_view line) {
        const setting found = parse_line(number, line);
        const keyword_row* row =
            found.keyword.empty() ? nullptr : find_keyword_row(server_keyword_rows(), found.keyword);
        on = on || (row != nullptr && row->how == treatment::fips_mode && !equal_ignoring_case(found.value, "no"));
    });
    return on;
}

translation translate(const translation_input& input) {
    translator state{.input = input};
    state.result.fips_mode = input.fips_mode || asks_for_fips_mode(input.text);
    state.result.text = text_format("# Generated at each start of %s from %s; make changes there.\n",
                                    input.kind->made_for, shown(input.source_name).c_str());
    state.result.text.append(state.result.fips_mode ? fips_mode_line : no_fips_mode_line);
    state.result.text.append(input.kind->first_lines);
    if (!input.verbose_places.empty()) {
        // Of several lines the first applies.
        write_line(state, *find_keyword_row(input.kind->rows, "LogVerbose"), input.verbose_places, 0);
    }
    for_each_line(input.text, [&](size_t number, std::string_view line) { translate_line(state, number, line); });
    settle(state);
    add_local_directives(state);
    confine_netconf_port(state);
    state.result.text += state.result.local.blocks;
    return std::move(state.result);
}

bool was_made_in_fips_mode(std::string_view translated_text) {
    const size_t first_line_end = std::min(translated_text.find('\n'), translated_text.size() - 1);
    return !translated_text.empty() && translated_text.substr(first_line_end + 1).starts_with(fips_mode_line);
}

}  // namespace openssh
