/// The server and client parameter tables: every keyword that the agent writes, its default and its current value.
#ifndef CONFIG_FILES_PARAMETER_TABLE_H
#define CONFIG_FILES_PARAMETER_TABLE_H

#include <cstddef>
#include <cstdint>

#include "config_files/line_entry.h"

struct vrf_node;

enum server_parameter : size_t {
    SERVER_START_MARKER,
    SERVER_PROTOCOL,
    SERVER_USE_PAM,
    SERVER_PORT,
    SERVER_MACS,
    SERVER_MAX_AUTH_TRIES,
    SERVER_REKEY_LIMIT,
    SERVER_MAX_SESSIONS,
    SERVER_IP_QOS,
    SERVER_PERMIT_ROOT_LOGIN,
    SERVER_FIPS_MODE,
    SERVER_LOG_LEVEL,
    SERVER_NETCONF_PORT,
    SERVER_WINDOW_SCALE,
    SERVER_SUBSYSTEM,
    SERVER_RATE_LIMIT,
    SERVER_SESSION_LIMIT,
    SERVER_BANNER,
    SERVER_ACCEPTED_ALGORITHMS,
    SERVER_LOGIN_GRACE_TIME,
    SERVER_CLIENT_ALIVE_INTERVAL,
    SERVER_ALLOW_TCP_FORWARDING,
    SERVER_HOST_TRUSTPOINT,
    SERVER_USER_TRUSTPOINT,
    SERVER_USER_TRUSTPOINT_COUNT,
    SERVER_CERTIFICATE_USERNAME,
    SERVER_END_MARKER,
    server_parameter_count
};

enum server_algorithm : size_t {
    SERVER_ALGORITHM_START_MARKER,
    SERVER_HOST_KEY_ALGORITHMS,
    SERVER_HOST_KEY,
    SERVER_CIPHERS,
    SERVER_KEX_ALGORITHMS,
    SERVER_ALGORITHM_END_MARKER,
    server_algorithm_count
};

enum client_parameter : size_t {
    CLIENT_PROTOCOL,
    CLIENT_MACS,
    CLIENT_REKEY_LIMIT,
    CLIENT_IP_QOS,
    CLIENT_WINDOW_SCALE,
    CLIENT_USER_KNOWN_HOSTS_FILE,
    CLIENT_LOG_LEVEL,
    CLIENT_STRICT_HOST_KEY_CHECKING,
    CLIENT_SERVER_ALIVE_INTERVAL,
    CLIENT_PUBKEY_AUTHENTICATION,
    client_parameter_count
};

enum client_algorithm : size_t {
    CLIENT_CIPHERS,
    CLIENT_KEX_ALGORITHMS,
    CLIENT_HOST_KEY_ALGORITHMS,
    client_algorithm_count
};

inline constexpr size_t algorithm_list_size = 201;  ///< 200 characters and NUL
inline constexpr size_t setting_text_size = 51;     ///< 50 characters and NUL

/// The server's settings, and the VRFs in which servers run.
struct server_configuration {
    line_entry parameters[server_parameter_count];
    algorithm_entry algorithms[server_algorithm_count];
    vrf_node* nodes;  ///< head of the list of VRFs, the newest first
};

struct client_configuration {
    line_entry parameters[client_parameter_count];
    algorithm_entry algorithms[client_algorithm_count];
};

extern server_configuration server;
extern client_configuration client;

// Texts that the appliers edit; filled together with the tables. A base is a list without the legacy ciphers.
extern char server_cipher_base[algorithm_list_size];
extern char server_cipher_list[algorithm_list_size];
extern char server_mac_list[algorithm_list_size];
extern char server_dscp[setting_text_size];
extern char client_cipher_base[algorithm_list_size];
extern char client_cipher_list[algorithm_list_size];
extern char client_mac_list[algorithm_list_size];
extern char client_dscp[setting_text_size];

/// Fills both tables and the texts above with their defaults. The list of VRFs is left alone.
void fill_parameter_tables();

/// Makes the IPQoS value of a DSCP text: the text is read as hexadecimal and moved into the upper six bits of the type of
/// service (RFC 2474), "0x10" becomes "0x40".
void ip_qos_text(const char* dscp, char* buffer, size_t size);

/// The setting in force: the current text, or the default.
inline const char* effective_text(const line_entry& entry) {
    return entry.current != nullptr ? entry.current : entry.default_text;
}

#endif
