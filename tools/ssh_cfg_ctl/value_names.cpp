#include "ssh_cfg_ctl/value_names.h"

#include <span>

namespace {

// Position i names the value i.

constexpr const char* states[] = {"negotiating", "authenticating", "established"};

constexpr const char* versions[] = {"v1", "v2"};

constexpr const char* connection_types[] = {
    "none", "shell", "command", "subsystem", "sftp", "netconf", "forwarding",
};

constexpr const char* authentication_types[] = {
    "password",
    "rsa-pubkey",
    "key-intr",
    "x509-rsa-pubkey",
    "x509-dsa-pubkey",
    "x509-ecdsa521-pubkey",
    "x509-ecdsa384-pubkey",
    "x509-ecdsa256-pubkey",
};

constexpr const char* key_exchanges[] = {
    "diffie-hellman-group1-sha1",
    "diffie-hellman-group14-sha1",
    "diffie-hellman-group15-sha1",
    "diffie-hellman-group16-sha1",
    "diffie-hellman-group17-sha1",
    "diffie-hellman-group18-sha1",
    "ecdh-sha2-nistp256",
    "ecdh-sha2-nistp384",
    "ecdh-sha2-nistp521",
    "curve25519-sha256",
    "diffie-hellman-group14-sha256",
    "diffie-hellman-group16-sha512",
    "curve25519-sha256@libssh.org",
};

constexpr const char* host_keys[] = {
    "ssh-dss",     "ssh-rsa",        "ecdsa-sha2-nistp521", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp256",
    "ssh-ed25519", "x509v3-ssh-rsa", "rsa-sha2-512",        "rsa-sha2-256",
};

constexpr const char* ciphers[] = {
    "aes128-cbc",
    "aes192-cbc",
    "aes256-cbc",
    "3des-cbc",
    "aes128-ctr",
    "aes192-ctr",
    "aes256-ctr",
    "aes128-gcm@openssh.com",
    "aes256-gcm@openssh.com",
    "chacha20-poly1305@openssh.com",
};

constexpr const char* macs[] = {"hmac-md5", "hmac-sha1", "hmac-sha2-256", "hmac-sha2-512", "aes-gcm"};

constexpr const char* telemetry_versions[] = {"v2", "v1", "v1 and v2"};

struct enumeration_row {
    std::string_view enumeration;
    std::span<const char* const> names;
};

constexpr enumeration_row enumerations[] = {
    {"states_en", states},
    {"version_en", versions},
    {"connection_type_en", connection_types},
    {"authen_type_en", authentication_types},
    {"kex_name_en", key_exchanges},
    {"hostkey_type_en", host_keys},
    {"cipher_type_en", ciphers},
    {"mac_type_en", macs},
    {"openconfig_system_terminal_protocol_version_", telemetry_versions},
};

}  // namespace

const char* ctl_value_name(std::string_view enumeration, int64_t value) {
    for (const enumeration_row& row : enumerations) {
        if (row.enumeration == enumeration && value >= 0 && value < static_cast<int64_t>(row.names.size())) {
            return row.names[static_cast<size_t>(value)];
        }
    }
    return nullptr;
}
