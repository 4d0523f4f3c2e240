#include "config_files/file_comparison.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>

#include "config_files/line_editor.h"
#include "config_files/parameter_table.h"
#include "core/paths.h"
#include "core/text.h"

namespace {

constexpr char blanks[] = " \t\r\v\f";
constexpr char host_key[] = "HostKey";
constexpr char own_keyword[] = "Port";
constexpr char own_subsystem[] = "Subsystem netconf";

int update_one_string_in_file(const char* file, const char* keyword, int add, char* new_line, uint32_t* change) {
    return update_string_in_file(file, keyword, add, new_line, change);
}

// --- Rows ------------------------------------------------------------------------------------------------------------

/// How a missing keyword is interpreted.
enum missing_line : uint8_t {
    HAS_DEFAULT,  ///< the default
    IS_UNSET,     ///< nothing: every file has the line, or only files whose server needs it
    NOT_COMPARED
};

struct setting_kind {
    const char* keyword;
    const setting_entry* setting;  ///< null for a list
    const algorithm_entry* list;   ///< null for a setting
    missing_line missing;
};

constexpr missing_line missing_setting(size_t index, uint32_t first_line) {
    if (index == SERVER_PORT || index == SERVER_NETCONF_PORT || index == SERVER_WINDOW_SCALE) {
        return NOT_COMPARED;
    }
    return first_line != NOT_AT_START || index == SERVER_BANNER ? IS_UNSET : HAS_DEFAULT;
}

constexpr missing_line missing_client_setting(size_t index, uint32_t first_line) {
    if (index == CLIENT_WINDOW_SCALE) {
        return NOT_COMPARED;
    }
    // Start-up writes the limit before the lines that have a position.
    return first_line != NOT_AT_START || index == CLIENT_REKEY_LIMIT ? IS_UNSET : HAS_DEFAULT;
}

// While FIPS mode is off, start-up removes these two lists, and the launchers fall back to the same defaults. However,
// the launcher does not use a file without host keys at all.
constexpr missing_line missing_list(size_t index) {
    return index == SERVER_CIPHERS || index == SERVER_KEX_ALGORITHMS ? HAS_DEFAULT : IS_UNSET;
}

constexpr missing_line missing_client_list(size_t index) {
    return index == CLIENT_CIPHERS || index == CLIENT_KEX_ALGORITHMS ? HAS_DEFAULT : IS_UNSET;
}

const setting_kind server_kinds[] = {
#define SERVER_KEYWORD(index, keyword, default_text, state, first_line, line_text) \
    {keyword, &server_config.parameters[index], nullptr, missing_setting(index, first_line)},
#define SERVER_LIST(index, keyword, ...) {keyword, nullptr, &server_config.algorithms[index], missing_list(index)},
#include "config_files/configuration.def"
};

const setting_kind client_kinds[] = {
#define CLIENT_KEYWORD(index, keyword, default_text, state, first_line, line_text) \
    {keyword, &client_config.parameters[index], nullptr, missing_client_setting(index, first_line)},
#define CLIENT_LIST(index, keyword, ...) \
    {keyword, nullptr, &client_config.algorithms[index], missing_client_list(index)},
#include "config_files/configuration.def"
};

/// Compares a row's keyword, which may end with a space.
bool is_keyword(const char* row_keyword, const std::string& keyword) {
    const size_t length = std::strcspn(row_keyword, " ");
    return keyword.size() == length && keyword.compare(0, length, row_keyword, length) == 0;
}

const setting_kind* kind_of(std::span<const setting_kind> kinds, const std::string& keyword) {
    for (const setting_kind& kind : kinds) {
        if (is_keyword(kind.keyword, keyword)) {
            return &kind;
        }
    }
    return nullptr;
}

// --- Values ----------------------------------------------------------------------------------------------------------

/// The non-empty names of a list, each followed by a comma; sorted and without duplicates if their order is irrelevant.
std::string names_of(const std::string& list, bool sorted) {
    std::vector<std::string> names;
    for (size_t start = 0; start < list.size();) {
        const size_t end = std::min(list.find_first_of(", ", start), list.size());
        if (end > start) {
            names.push_back(list.substr(start, end - start));
        }
        start = end + 1;
    }
    if (sorted) {
        std::ranges::sort(names);
        names.erase(std::unique(names.begin(), names.end()), names.end());
    }
    std::string joined;
    for (const std::string& name : names) {
        joined += name + ",";
    }
    return joined;
}

/// A value in the form used for comparison.
std::string comparable(const setting_kind* kind, const std::string& value) {
    if (kind == nullptr || kind->list == nullptr) {
        return value;
    }
    return names_of(value, is_keyword(kind->keyword, host_key));
}

/// The words of a line from `start` on, separated by single spaces.
std::string words_of(const std::string& line, size_t start) {
    std::string words;
    while ((start = line.find_first_not_of(blanks, start)) != std::string::npos) {
        const size_t end = std::min(line.find_first_of(blanks, start), line.size());
        words += (words.empty() ? "" : " ") + line.substr(start, end - start);
        start = end;
    }
    return words;
}

void add_setting(std::vector<keyword_value>& settings, const std::string& keyword, const std::string& value) {
    for (keyword_value& present : settings) {
        if (present.keyword == keyword) {
            if (keyword == host_key) {
                present.value = names_of(present.value + value, true);
            }
            return;
        }
    }
    settings.push_back({keyword, keyword == host_key ? names_of(value, true) : value});
}

void add_line(file_values& values, const std::string& line) {
    const std::string words = words_of(line, 0);
    const size_t end = words.find(' ');
    const std::string keyword = words.substr(0, end);
    if (words.empty() || keyword[0] == '#') {
        return;
    }
    if (keyword == own_keyword || begins_with(words.c_str(), own_subsystem)) {
        values.own_lines.push_back(words);
    } else {
        add_setting(values.settings, keyword, end == std::string::npos ? "" : words.substr(end + 1));
    }
}

/// The text that a row expects after its keyword; null for no line.
const char* wanted_text(const setting_kind& kind, char (&buffer)[setting_text_size]) {
    const char* text = kind.list != nullptr ? offered_list(*kind.list)
                                            : text_of_line(kind.setting->line_text, kind.setting->current, buffer);
    return text != nullptr && text[0] != '\0' ? text : nullptr;
}

std::vector<keyword_value> wanted_settings(std::span<const setting_kind> kinds) {
    std::vector<keyword_value> settings;
    for (const setting_kind& kind : kinds) {
        char buffer[setting_text_size];
        const char* text = kind.missing != NOT_COMPARED ? wanted_text(kind, buffer) : nullptr;
        if (text != nullptr) {
            add_setting(settings, std::string(kind.keyword, std::strcspn(kind.keyword, " ")), text);
        }
    }
    return settings;
}

/// The value that a file without the keyword has.
std::string value_if_missing(const setting_kind* kind) {
    if (kind == nullptr || kind->missing == IS_UNSET) {
        return "";
    }
    if (kind->list != nullptr) {
        return kind->list->default_text;
    }
    char buffer[setting_text_size];
    const char* text = text_of_line(kind->setting->line_text, kind->setting->default_text, buffer);
    return text != nullptr ? text : "";
}

bool differs(const setting_kind* kind, const std::string* wanted, const std::string* present) {
    if (kind != nullptr && kind->missing == NOT_COMPARED) {
        return false;
    }
    const std::string missing = value_if_missing(kind);
    return comparable(kind, wanted != nullptr ? *wanted : missing) !=
           comparable(kind, present != nullptr ? *present : missing);
}

std::vector<std::string> differing_keywords(std::span<const setting_kind> kinds,
                                            const std::vector<keyword_value>& wanted,
                                            const std::vector<keyword_value>& present) {
    std::vector<std::string> keywords;
    for (const keyword_value& each : wanted) {
        if (differs(kind_of(kinds, each.keyword), &each.value, value_of(present, each.keyword))) {
            keywords.push_back(each.keyword);
        }
    }
    for (const keyword_value& each : present) {
        if (value_of(wanted, each.keyword) == nullptr && differs(kind_of(kinds, each.keyword), nullptr, &each.value)) {
            keywords.push_back(each.keyword);
        }
    }
    return keywords;
}

/// Removes the ports from a file, each of which the editor wants to have named. Returns 0, or -1 with errno.
int remove_ports(const char* path) {
    file_values present;
    int result = read_file_values(path, &present);
    for (std::string& line : present.own_lines) {
        uint32_t change = 0;
        if (result == 0 && begins_with(line.c_str(), own_keyword)) {
            result = update_string_in_file(path, own_keyword, 0, line.data(), &change);
        }
    }
    return result;
}

/// Writes the line of a keyword into a file, or removes it. A keyword without a row is removed.
int write_line_again(std::span<const setting_kind> kinds, const char* path, const std::string& keyword) {
    if (keyword == own_keyword) {
        return remove_ports(path);
    }
    const setting_kind* kind = kind_of(kinds, keyword);
    char buffer[setting_text_size];
    const char* text = kind != nullptr ? wanted_text(*kind, buffer) : nullptr;
    const std::string prefix = kind != nullptr ? kind->keyword : keyword;
    std::string line = text != nullptr ? prefix + " " + text : "";
    const auto edit = keyword == host_key ? update_multiple_strings_in_file : update_one_string_in_file;
    uint32_t change = 0;
    return edit(path, prefix.c_str(), text != nullptr ? 1 : 0, text != nullptr ? line.data() : nullptr, &change);
}

struct close_file {
    void operator()(FILE* file) const { std::fclose(file); }
};

}  // namespace

const std::string* value_of(const std::vector<keyword_value>& settings, const std::string& keyword) {
    for (const keyword_value& each : settings) {
        if (each.keyword == keyword) {
            return &each.value;
        }
    }
    return nullptr;
}

int read_file_values(const char* path, file_values* values) {
    *values = {};
    const std::unique_ptr<FILE, close_file> file(std::fopen(path, "re"));
    if (file == nullptr) {
        return -1;
    }
    std::string content;
    char buffer[4096];
    for (size_t size; (size = std::fread(buffer, 1, sizeof buffer, file.get())) > 0;) {
        content.append(buffer, size);
    }
    if (std::ferror(file.get()) != 0) {
        return -1;
    }
    for (size_t start = 0; start < content.size();) {
        const size_t end = std::min(content.find('\n', start), content.size());
        add_line(*values, content.substr(start, end - start));
        start = end + 1;
    }
    std::ranges::sort(values->own_lines);
    return 0;
}

int write_server_line_again(const std::string& keyword) {
    return write_line_again(server_kinds, paths::server_file, keyword);
}

int write_client_line_again(const std::string& keyword) {
    return write_line_again(client_kinds, paths::client_file, keyword);
}

std::vector<keyword_value> wanted_server_settings() {
    return wanted_settings(server_kinds);
}

std::vector<keyword_value> wanted_client_settings() {
    return wanted_settings(client_kinds);
}

std::vector<std::string> differing_server_keywords(const std::vector<keyword_value>& wanted,
                                                   const std::vector<keyword_value>& present) {
    return differing_keywords(server_kinds, wanted, present);
}

std::vector<std::string> differing_client_keywords(const std::vector<keyword_value>& wanted,
                                                   const std::vector<keyword_value>& present) {
    return differing_keywords(client_kinds, wanted, present);
}
