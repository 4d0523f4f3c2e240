#include "config_files/parameter_table.h"

#include <cstdlib>

#include "config_files/algorithm_names.h"
#include "core/text.h"

server_configuration server;
client_configuration client;

char server_cipher_base[algorithm_list_size];
char server_cipher_list[algorithm_list_size];
char server_mac_list[algorithm_list_size];
char server_dscp[setting_text_size];
char client_cipher_base[algorithm_list_size];
char client_cipher_list[algorithm_list_size];
char client_mac_list[algorithm_list_size];
char client_dscp[setting_text_size];

namespace {

constexpr char default_dscp[] = "0x10";

/// Most settings start with their default in force.
constexpr line_entry in_force(const char* keyword, const char* text) {
    return {text, text, keyword, 1};
}

/// These are not written before their items are configured.
constexpr line_entry unset(const char* keyword, const char* text) {
    return {text, nullptr, keyword, 1};
}

constexpr line_entry marker(const char* keyword) {
    return {nullptr, nullptr, keyword, 0};
}

constexpr algorithm_entry list(const char* keyword, const char* text) {
    return {text, text, text, keyword, 1};
}

constexpr algorithm_entry list_marker(const char* keyword) {
    return {nullptr, nullptr, nullptr, keyword, 0};
}

constexpr server_configuration server_defaults = {
    {
        marker("startconfig"),
        unset("Protocol", "2,1"),
        in_force("UsePAM", "yes"),
        unset("Port", "22"),
        in_force("MACs", default_mac_list),
        in_force("MaxAuthTries", "20"),
        in_force("RekeyLimit", "1024M 60m"),
        in_force("MaxSessions", "16"),
        in_force("IPQoS", default_dscp),
        in_force("PermitRootLogin", "yes"),
        unset("NorvoSSHFipsMode", ""),
        unset("LogLevel", ""),
        unset("Port", "830"),
        unset("WindowScaleQd", "1"),
        in_force("Subsystem", "sftp /pkg/bin/sftp-server"),
        in_force("RateLimitQd", "60"),
        in_force("SessionLimitQd", "64"),
        unset("Banner", "/var/opt/norvo/norvossh/banner"),
        in_force("AcceptedAlgorithms", default_accepted_algorithms),
        in_force("LoginGraceTime", "30"),
        in_force("ClientAliveInterval", "60"),
        in_force("AllowTcpForwarding", "no"),
        unset("HostTrustpointQd", ""),
        unset("UserTrustpointQd", ""),
        unset("UserTrustpointCntQd", "0"),
        unset("CertUsernameQd", "1"),
        marker("endconfig"),
    },
    {
        list_marker("startalgoconfig"),
        list("HostKeyAlgorithms", default_server_host_key_algorithms),
        // The blank keeps the keyword from being found at the beginning of a "HostKeyAlgorithms" line.
        list("HostKey ", default_host_keys),
        list("Ciphers", default_cipher_list),
        list("KexAlgorithms", default_kex_list),
        list_marker("endalgoconfig"),
    },
    nullptr,
};

constexpr client_configuration client_defaults = {
    {
        unset("Protocol", "2,1"),
        in_force("MACs", default_mac_list),
        in_force("RekeyLimit", "1024M 60m"),
        in_force("IPQoS", default_dscp),
        unset("WindowScaleQd", nullptr),
        in_force("UserKnownHostsFile", "/dev/null"),
        unset("LogLevel", ""),
        in_force("StrictHostKeyChecking", "no"),
        in_force("ServerAliveInterval", "60"),
        in_force("PubkeyAuthentication", "no"),
    },
    {
        list("Ciphers", default_cipher_list),
        list("KexAlgorithms", default_kex_list),
        list("HostKeyAlgorithms", default_client_host_key_algorithms),
    },
};

}  // namespace

void fill_parameter_tables() {
    vrf_node* const nodes = server.nodes;
    server = server_defaults;
    server.nodes = nodes;
    client = client_defaults;
    copy_text(server_cipher_base, sizeof server_cipher_base, default_cipher_list);
    copy_text(server_cipher_list, sizeof server_cipher_list, default_cipher_list);
    copy_text(server_mac_list, sizeof server_mac_list, default_mac_list);
    copy_text(server_dscp, sizeof server_dscp, default_dscp);
    copy_text(client_cipher_base, sizeof client_cipher_base, default_cipher_list);
    copy_text(client_cipher_list, sizeof client_cipher_list, default_cipher_list);
    copy_text(client_mac_list, sizeof client_mac_list, default_mac_list);
    copy_text(client_dscp, sizeof client_dscp, default_dscp);
}

void ip_qos_text(const char* dscp, char* buffer, size_t size) {
    const unsigned long code_point = std::strtoul(dscp, nullptr, 16);
    format_text(buffer, size, "0x%x", static_cast<unsigned>(code_point) << 2);
}
