#include "ssh_cfg_ctl/value_names.h"

#include <span>

#include "platform/algorithms.h"

namespace {

// Indexed by value.

constexpr const char* state_names[] = {"negotiating", "authenticating", "established"};

constexpr const char* version_names[] = {"v1", "v2"};

constexpr const char* connection_type_names[] = {
    "none", "shell", "command", "subsystem", "sftp", "netconf", "forwarding",
};

constexpr const char* authentication_names[] = {
    "password",
    "rsa-pubkey",
    "key-intr",
    "x509-rsa-pubkey",
    "x509-dsa-pubkey",
    "x509-ecdsa521-pubkey",
    "x509-ecdsa384-pubkey",
    "x509-ecdsa256-pubkey",
};

constexpr const char* telemetry_version_names[] = {"v2", "v1", "v1 and v2"};

struct enumeration_row {
    std::string_view enumeration;
    std::span<const char* const> names;
};

constexpr enumeration_row enumerations[] = {
    {"states_en", state_names},
    {"version_en", version_names},
    {"connection_type_en", connection_type_names},
    {"authen_type_en", authentication_names},
    {"openconfig_system_terminal_protocol_version_", telemetry_version_names},
};

struct algorithm_enumeration_row {
    std::string_view enumeration;
    algorithm_kind kind;
};

constexpr algorithm_enumeration_row algorithm_enumerations[] = {
    {"kex_name_en", algorithm_kind::kex},
    {"hostkey_type_en", algorithm_kind::key},
    {"cipher_type_en", algorithm_kind::cipher},
    {"mac_type_en", algorithm_kind::mac},
};

const char* algorithm_name(algorithm_kind kind, int64_t number) {
    const algorithm_row* row = number >= 0 ? algorithm_at(kind, &algorithm_row::number, number) : nullptr;
    return row != nullptr ? row->name : nullptr;
}

}  // namespace

const char* ctl_value_name(std::string_view enumeration, int64_t value) {
    for (const enumeration_row& row : enumerations) {
        if (row.enumeration == enumeration && value >= 0 && value < static_cast<int64_t>(row.names.size())) {
            return row.names[static_cast<size_t>(value)];
        }
    }
    for (const algorithm_enumeration_row& row : algorithm_enumerations) {
        if (row.enumeration == enumeration) {
            return algorithm_name(row.kind, value);
        }
    }
    return nullptr;
}
