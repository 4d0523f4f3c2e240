/// The server and client parameter tables: every keyword that the agent writes, its default and its current value.
///
/// The rows come from config_files/configuration.def.
#ifndef CONFIG_FILES_PARAMETER_TABLE_H
#define CONFIG_FILES_PARAMETER_TABLE_H

#include <cstddef>
#include <cstdint>

#include "config_files/line_entry.h"

struct vrf_node;

/// Used instead of the position of a keyword's line among the lines that every start writes, if its line is not one of
/// them.
inline constexpr uint32_t NOT_AT_START = 0;

enum server_parameter : size_t {
    SERVER_START_MARKER,
#define SERVER_KEYWORD(index, ...) index,
#include "config_files/configuration.def"
    SERVER_END_MARKER,
    server_parameter_count
};

enum server_algorithm : size_t {
    SERVER_ALGORITHM_START_MARKER,
#define SERVER_LIST(index, ...) index,
#include "config_files/configuration.def"
    SERVER_ALGORITHM_END_MARKER,
    server_algorithm_count
};

enum client_parameter : size_t {
#define CLIENT_KEYWORD(index, ...) index,
#include "config_files/configuration.def"
    client_parameter_count
};

enum client_algorithm : size_t {
#define CLIENT_LIST(index, ...) index,
#include "config_files/configuration.def"
    client_algorithm_count
};

inline constexpr size_t algorithm_list_size = 201;  ///< 200 characters and NUL
static_assert(algorithm_list_size <= setting_text_size && algorithm_list_size <= algorithm_text_size);

/// The server's settings, and the VRFs in which servers run.
struct server_configuration {
    setting_entry parameters[server_parameter_count];
    algorithm_entry algorithms[server_algorithm_count];
    char cipher_base[algorithm_list_size];  ///< the ciphers without the legacy ones
    vrf_node* nodes;                        ///< head of the list of VRFs, newest first
};

struct client_configuration {
    setting_entry parameters[client_parameter_count];
    algorithm_entry algorithms[client_algorithm_count];
    char cipher_base[algorithm_list_size];  ///< the ciphers without the legacy ones
};

extern server_configuration server_config;
extern client_configuration client_config;

/// Fills both tables, each entry's own text and the cipher bases with the defaults. Leaves the list of VRFs unchanged.
void fill_parameter_tables();

/// Converts a DSCP text into an IPQoS value: reads the text as hexadecimal and shifts it into the upper six bits of the
/// type of service (RFC 2474). "0x10" becomes "0x40".
void ip_qos_text(const char* dscp, char* buffer, size_t size);

/// The text of a value's line: the value itself, which may be null, or what `make` formats into the buffer.
const char* text_of_line(line_text_maker make, const char* value, char (&buffer)[setting_text_size]);

/// The setting in force: the current text, or the default.
inline const char* effective_text(const line_entry& entry) {
    return entry.current != nullptr ? entry.current : entry.default_text;
}

/// The list that the files carry: the current one, or what FIPS mode leaves of it.
inline const char* offered_list(const algorithm_entry& entry) {
    return entry.second_current != nullptr ? entry.second_current : entry.current;
}

#endif
