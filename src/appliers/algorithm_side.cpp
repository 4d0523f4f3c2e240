#include "appliers/algorithm_side.h"

#include "appliers/trace_points.h"
#include "config_files/config_writer.h"

namespace {

// The entries themselves hold the buffers that the appliers edit.
constexpr auto& server_kex_list = server_config.algorithms[SERVER_KEX_ALGORITHMS].text;
constexpr auto& client_kex_list = client_config.algorithms[CLIENT_KEX_ALGORITHMS].text;
constexpr auto& server_cipher_list = server_config.algorithms[SERVER_CIPHERS].text;
constexpr auto& client_cipher_list = client_config.algorithms[CLIENT_CIPHERS].text;
constexpr auto& server_cipher_base = server_config.cipher_base;
constexpr auto& client_cipher_base = client_config.cipher_base;
constexpr auto& server_mac_list = server_config.parameters[SERVER_MACS].text;
constexpr auto& client_mac_list = client_config.parameters[CLIENT_MACS].text;

uint32_t legacy_cipher_mask;
uint32_t client_legacy_cipher_mask;
uint8_t hmac_disabled[mac_count];
uint8_t client_hmac_disabled[mac_count];

int write_server_line(uint32_t event, const char* keyword, const char* value) {
    constexpr uint32_t every_vrf = 1;
    return update_config_files_restart(event, keyword, value, every_vrf);
}

int write_client_line(uint32_t event, const char* keyword, const char* value) {
    update_client_config_file(event, keyword, value);
    return 0;
}

}  // namespace

const algorithm_side server_side = {
    .kex = &server_config.algorithms[SERVER_KEX_ALGORITHMS],
    .ciphers = &server_config.algorithms[SERVER_CIPHERS],
    .macs = &server_config.parameters[SERVER_MACS],
    .kex_list = server_kex_list,
    .cipher_base = server_cipher_base,
    .cipher_list = server_cipher_list,
    .mac_list = server_mac_list,
    .legacy_cipher_mask = &legacy_cipher_mask,
    .hmac_disabled = hmac_disabled,
    .write = write_server_line,
    .trace =
        {
            .kex = appliers_trace_server_kex,
            .cipher = appliers_trace_server_cipher,
            .legacy_cipher = appliers_trace_server_legacy_cipher,
            .mac = appliers_trace_server_mac,
        },
    .text =
        {
            .kex_event = "Event:=%d, Config:=ssh server algo kex",
            .kex_function = "sshd_apply_kexalgo",
            .kex_question = "(%s) Failed to check fips mode  in sshd kexalgo applier",
            .cipher_event = "Event:=%d, Config:=ssh server algo cipher",
            .cipher_question = "Failed to check fips mode  in sshd cipheralgo applier",
            .legacy_event = "Event:=%d, Config:=ssh server enable cipher",
            .legacy_function = "sshd_apply_cipher",
            .legacy_question = "(%s) Failed to check fips mode  in sshd apply cipher",
            // For historical reasons the second text is that of the third MAC.
            .mac_events = {"Event:=%d, Config:=ssh server hmac hmac-sha1",
                           "Event:=%d, Config:=ssh server hmac hmac-512",
                           "Event:=%d, Config:=ssh server hmac hmac-512"},
            .old_macs = "old hmac server list =  %s ",
            .proposed_macs = "Proposed hmac server list =  %s ",
            .mac_not_added = "Error:=%s(0x%x), hmac:=%s, Failed to add hmac to the server list, ",
        },
};

const algorithm_side client_side = {
    .kex = &client_config.algorithms[CLIENT_KEX_ALGORITHMS],
    .ciphers = &client_config.algorithms[CLIENT_CIPHERS],
    .macs = &client_config.parameters[CLIENT_MACS],
    .kex_list = client_kex_list,
    .cipher_base = client_cipher_base,
    .cipher_list = client_cipher_list,
    .mac_list = client_mac_list,
    .legacy_cipher_mask = &client_legacy_cipher_mask,
    .hmac_disabled = client_hmac_disabled,
    .write = write_client_line,
    .trace =
        {
            .kex = appliers_trace_client_kex,
            .cipher = appliers_trace_client_cipher,
            .legacy_cipher = appliers_trace_client_legacy_cipher,
            .mac = appliers_trace_client_mac,
        },
    .text =
        {
            .kex_event = "Event:=%d, Config:=ssh client algo kex",
            .kex_function = "ssh_client_apply_kexalgo",
            .kex_question = "(%s) Failed to check fips mode  in client kexalgo applier",
            .cipher_event = "Event:=%d, Config:=ssh client algo cipher",
            .cipher_question = "Failed to check fips mode  in client cipheralgo applier",
            .legacy_event = "Event:=%d, Config:=ssh client enable cipher",
            .legacy_function = "ssh_client_apply_cipher",
            .legacy_question = "(%s) Failed to check fips mode  in client apply cipher",
            .mac_events = {"Event:=%d, Config:=ssh client hmac hmac-sha1",
                           "Event:=%d, Config:=ssh client hmac hmac-sha256",
                           "Event:=%d, Config:=ssh client hmac hmac-sha512"},
            .old_macs = "old hmac client list =  %s",
            .proposed_macs = "Proposed hmac client list =  %s",
            .mac_not_added = "Error:=%s(0x%x), hmac:=%s, Failed to add hmac to the client list, ",
        },
};
