#include "ssh_cfg_ctl/completion.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <string_view>

#include "ssh_cfg_ctl/calls.h"
#include "ssh_cfg_ctl/client.h"
#include "ssh_cfg_ctl/command_line.h"

namespace {

constexpr unsigned completion_patience = 2;  ///< seconds

/// What the operator has typed.
struct typed_words {
    std::vector<std::string> call;  ///< the call and its arguments so far
    std::string current;
    std::string socket_path;
};

using word_set = std::set<std::string>;

control_json data_for(const typed_words& typed, const control_json& request) {
    const ctl_connection_settings settings = {typed.socket_path, completion_patience, false, ctl_progress::none};
    control_json answer = ctl_ask(settings, request);
    return answer.value("data", control_json::array());
}

void insert_texts(word_set& words, const control_json& texts) {
    for (const control_json& text : texts) {
        if (text.is_string()) {
            words.insert(text.get<std::string>());
        }
    }
}

/// Asks the agent for completions of a kind.
template <const char* what>
word_set completions(const typed_words& typed) {
    word_set words;
    control_json request = {{"call", "complete"}, {"what", what}, {"word", typed.current}};
    if (typed.call.size() > 1) {
        request["path"] = typed.call[1];
    }
    insert_texts(words, data_for(typed, request));
    return words;
}

constexpr char an_item[] = "item";
constexpr char a_folder[] = "folder";
constexpr char operational_data[] = "operational";
constexpr char a_value[] = "value";
constexpr char a_vrf[] = "vrf";

/// A member of the objects that a call lists; of access lists, only those of the family named last.
word_set members(const typed_words& typed, const char* call, const char* member) {
    word_set words;
    for (const control_json& entry : data_for(typed, {{"call", call}})) {
        const bool is_other_family = entry.contains("family") && entry["family"] != typed.call.back();
        if (!is_other_family && entry.value(member, control_json()).is_string()) {
            words.insert(entry[member].get<std::string>());
        }
    }
    return words;
}

word_set list_names(const typed_words& typed) {
    return members(typed, "acl_list", "name");
}

word_set debug_flags(const typed_words& typed) {
    return members(typed, "debug", "name");
}

word_set users_with_keys(const typed_words& typed) {
    return members(typed, "key_list", "user");
}

/// Of the keys of the user named last.
word_set fingerprints(const typed_words& typed) {
    word_set words;
    for (const control_json& key : data_for(typed, {{"call", "key_list"}, {"user", typed.call.back()}})) {
        if (key.value("fingerprint", control_json()).is_string()) {
            words.insert(key["fingerprint"].get<std::string>());
        }
    }
    return words;
}

word_set users(const typed_words& typed) {
    constexpr char folder[] = "username/";
    word_set words;
    const control_json request = {{"call", "complete"}, {"what", an_item}, {"word", folder + typed.current}};
    for (const control_json& path : data_for(typed, request)) {
        const std::string text = path.is_string() ? path.get<std::string>() : "";
        const std::string name = text.substr(std::min(text.size(), sizeof folder - 1));
        words.insert(name.substr(0, name.find('/')));
    }
    return words;
}

/// What may follow some words: fixed words and what is asked for. "*" in the words is any word.
struct argument_row {
    const char* before;
    const char* words;
    word_set (*ask)(const typed_words& typed) = nullptr;
};

constexpr argument_row argument_rows[] = {
    {"set", "", completions<an_item>},
    {"set *", "", completions<a_value>},
    {"delete", "", completions<an_item>},
    {"get", "", completions<an_item>},
    {"list", "", completions<a_folder>},
    {"show", "", completions<operational_data>},
    {"help", "", completions<an_item>},
    {"acl", "set show delete list"},
    {"acl set", "ipv4 ipv6"},
    {"acl show", "ipv4 ipv6"},
    {"acl delete", "ipv4 ipv6"},
    {"acl * ipv4", "", list_names},
    {"acl * ipv6", "", list_names},
    {"key", "list import export delete"},
    {"key list", "", users_with_keys},
    {"key import", "", users},
    {"key export", "", users_with_keys},
    {"key export *", "", fingerprints},
    {"key delete", "", users_with_keys},
    {"key delete *", "", fingerprints},
    {"session", "end"},
    {"session end", "--user --vrf --pid"},
    {"session end --user", "", users},
    {"session end --vrf", "", completions<a_vrf>},
    {"failures", "", completions<a_vrf>},
    {"local", "show check edit set apply"},
    {"local show", "", completions<a_vrf>},
    {"local check", "all", completions<a_vrf>},
    {"local edit", "all", completions<a_vrf>},
    {"local set", "all", completions<a_vrf>},
    {"vrf", "list unblock"},
    {"vrf unblock", "", completions<a_vrf>},
    {"debug", "", debug_flags},
    {"debug *", "on off"},
    {"trace", "error event"},
};

void insert_words(word_set& words, const char* text) {
    std::istringstream stream(text);
    for (std::string word; stream >> word;) {
        words.insert(word);
    }
}

bool matches(const argument_row& row, const std::vector<std::string>& call) {
    std::istringstream stream(row.before);
    size_t count = 0;
    for (std::string word; stream >> word; count++) {
        if (count == call.size() || (word != "*" && word != call[count])) {
            return false;
        }
    }
    return count == call.size();
}

void insert_calls(word_set& words) {
    for (const ctl_call_row& row : ctl_calls()) {
        words.insert(row.name);
    }
}

word_set arguments_of(const typed_words& typed) {
    word_set words;
    for (const argument_row& row : argument_rows) {
        if (matches(row, typed.call)) {
            insert_words(words, row.words);
            words.merge(row.ask == nullptr ? word_set() : row.ask(typed));
        }
    }
    return words;
}

/// The options that a call's usage line shows.
void insert_own_options(word_set& words, const std::string& call) {
    const ctl_call_row* row = ctl_find_call(call);
    const std::string usage = row == nullptr ? "" : row->arguments;
    for (size_t start = usage.find("--"); start != std::string::npos; start = usage.find("--", start + 2)) {
        words.insert(usage.substr(start, usage.find_first_of(" ]|", start) - start));
    }
}

word_set options_of(const typed_words& typed) {
    word_set words;
    insert_words(words, "--json --names --yes --progress --timeout --socket --help --version");
    if (!typed.call.empty()) {
        insert_own_options(words, typed.call[0]);
    }
    return words;
}

word_set possible_words(const typed_words& typed) {
    word_set words;
    if (typed.current.starts_with('-')) {
        return options_of(typed);
    }
    if (typed.call.empty() || (typed.call.size() == 1 && typed.call[0] == "help")) {
        insert_calls(words);
    }
    if (!typed.call.empty()) {
        words.merge(arguments_of(typed));
    }
    return words;
}

}  // namespace

std::vector<std::string> ctl_complete(const std::vector<std::string>& words) {
    if (words.empty()) {
        return {};
    }
    const ctl_command_line line = ctl_parse_command_line({words.begin(), words.end() - 1});
    typed_words typed = {line.call, words.back(), line.socket_path};
    // The positions of a call's own options do not matter.
    std::erase_if(typed.call, [](const std::string& word) { return word.starts_with("--"); });
    std::vector<std::string> candidates;
    for (const std::string& word : possible_words(typed)) {
        if (word.starts_with(typed.current)) {
            candidates.push_back(word);
        }
    }
    return candidates;
}
