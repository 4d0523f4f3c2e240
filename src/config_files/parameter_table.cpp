#include "config_files/parameter_table.h"

#include <cstdlib>
#include <string_view>

#include "config_files/algorithm_names.h"
#include "core/text.h"

server_configuration server_config;
client_configuration client_config;

namespace {

enum initial_state : bool { UNSET, IN_FORCE };

/// A default that is too long does not compile.
template <size_t Size>
constexpr void put_text(char (&buffer)[Size], std::string_view text) {
    text.copy(buffer, text.size());
    buffer[text.size()] = '\0';
}

constexpr setting_entry setting(const char* keyword, const char* default_text, initial_state state,
                                line_text_maker line_text) {
    setting_entry entry = {{default_text, state == IN_FORCE ? default_text : nullptr, keyword, 1}, line_text, {}};
    put_text(entry.text, default_text);
    return entry;
}

constexpr setting_entry setting(const char* keyword, std::nullptr_t, initial_state, line_text_maker line_text) {
    return {{nullptr, nullptr, keyword, 1}, line_text, {}};
}

constexpr algorithm_entry list(const char* keyword, const char* default_text) {
    algorithm_entry entry = {default_text, default_text, default_text, keyword, 1, {}, {}};
    put_text(entry.text, default_text);
    return entry;
}

constexpr setting_entry marker(const char* keyword) {
    return {{nullptr, nullptr, keyword, 0}, PLAIN_VALUE, {}};
}

constexpr algorithm_entry list_marker(const char* keyword) {
    return {nullptr, nullptr, nullptr, keyword, 0, {}, {}};
}

constexpr server_configuration make_server_defaults() {
    server_configuration defaults = {
        {
            marker("startconfig"),
#define SERVER_KEYWORD(index, keyword, default_text, state, first_line, line_text) \
    setting(keyword, default_text, state, line_text),
#include "config_files/configuration.def"
            marker("endconfig"),
        },
        {
            list_marker("startalgoconfig"),
#define SERVER_LIST(index, keyword, default_text, ...) list(keyword, default_text),
#include "config_files/configuration.def"
            list_marker("endalgoconfig"),
        },
        {},
        nullptr,
    };
    put_text(defaults.cipher_base, default_cipher_list);
    return defaults;
}

constexpr client_configuration make_client_defaults() {
    client_configuration defaults = {
        {
#define CLIENT_KEYWORD(index, keyword, default_text, state, first_line, line_text) \
    setting(keyword, default_text, state, line_text),
#include "config_files/configuration.def"
        },
        {
#define CLIENT_LIST(index, keyword, default_text, ...) list(keyword, default_text),
#include "config_files/configuration.def"
        },
        {},
    };
    put_text(defaults.cipher_base, default_cipher_list);
    return defaults;
}

constexpr server_configuration server_defaults = make_server_defaults();
constexpr client_configuration client_defaults = make_client_defaults();

// Every index of the tables has a row, and the markers enclose the rows of the server.
static_assert(server_defaults.parameters[SERVER_START_MARKER].keyword == std::string_view("startconfig"));
static_assert(server_defaults.parameters[SERVER_END_MARKER].keyword == std::string_view("endconfig"));
static_assert(server_defaults.algorithms[SERVER_ALGORITHM_START_MARKER].keyword == std::string_view("startalgoconfig"));
static_assert(server_defaults.algorithms[SERVER_ALGORITHM_END_MARKER].keyword == std::string_view("endalgoconfig"));
static_assert(!std::string_view(client_defaults.parameters[client_parameter_count - 1].keyword).empty());
static_assert(!std::string_view(client_defaults.algorithms[client_algorithm_count - 1].keyword).empty());

}  // namespace

void fill_parameter_tables() {
    vrf_node* const nodes = server_config.nodes;
    server_config = server_defaults;
    server_config.nodes = nodes;
    client_config = client_defaults;
}

void ip_qos_text(const char* dscp, char* buffer, size_t size) {
    const unsigned long code_point = std::strtoul(dscp, nullptr, 16);
    format_text(buffer, size, "0x%x", static_cast<unsigned>(code_point) << 2);
}

const char* text_of_line(line_text_maker make, const char* value, char (&buffer)[setting_text_size]) {
    if (make == PLAIN_VALUE || value == nullptr || value[0] == '\0') {
        return value;
    }
    make(value, buffer, sizeof buffer);
    return buffer;
}
