#include "oper/server_params.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config_files/parameter_table.h"
#include "config_files/trustpoints.h"
#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/text.h"
#include "oper/record_schemas.h"
#include "oper/trace_points.h"
#include "platform/record_codec.h"

namespace {

constexpr size_t vrf_slot_size = 200;

/// The text of a setting in force; never null.
const char* setting(server_parameter parameter) {
    const char* text = effective_text(server_config.parameters[parameter]);
    return text != nullptr ? text : "";
}

const char* algorithm_list(server_algorithm algorithm) {
    const algorithm_entry& entry = server_config.algorithms[algorithm];
    const char* text = entry.current != nullptr ? entry.current : entry.default_text;
    return text != nullptr ? text : "";
}

template <size_t size>
void put(char (&field)[size], const char* text) {
    copy_text(field, size, text);
}

uint32_t number_of(server_parameter parameter) {
    return static_cast<uint32_t>(atoi(setting(parameter)));
}

/// Appends to a joined text, truncating it to its buffer.
template <size_t size>
void append(char (&field)[size], const char* text) {
    const size_t length = strnlen(field, size);
    copy_text(field + length, size - length, text);
}

void format_vrf_slot(char (&slot)[vrf_slot_size], const char* name, const char* v4_acl, const char* v6_acl) {
    format_text(slot, sizeof(slot), "vrfname:=%s(v4-acl:=%s, v6-acl:=%s)  ", name, v4_acl, v6_acl);
}

bool has_netconf(const vrf_node& node) {
    const char* subsystem = node.lines[VRF_NETCONF_SUBSYSTEM].current;
    return subsystem != nullptr && subsystem[0] != '\0';
}

/// Lists the VRFs from the last node to the first.
void fill_vrfs(const vrf_node* node, ssh_server_params* params) {
    if (node == nullptr) {
        return;
    }
    debug_print("ssh protocol config present");
    debug_print("ssh vrf-name:=%s, v4-acl:=%s, v6-acl:=%s", node->name, node->ssh_v4_acl, node->ssh_v6_acl);
    if (has_netconf(*node)) {
        debug_print("netconf protocol config present");
    }
    fill_vrfs(node->next, params);
    char slot[vrf_slot_size];
    format_vrf_slot(slot, node->name, node->ssh_v4_acl, node->ssh_v6_acl);
    append(params->Vrf, slot);
    if (has_netconf(*node)) {
        format_vrf_slot(slot, node->name, node->netconf_v4_acl, node->netconf_v6_acl);
        append(params->Netconfvrf, slot);
    }
}

void fill_algorithms(ssh_server_params* params) {
    put(params->Hostkeyalgo, algorithm_list(SERVER_HOST_KEY_ALGORITHMS));
    put(params->Kexalgo, algorithm_list(SERVER_KEX_ALGORITHMS));
    put(params->Cipheralgo, algorithm_list(SERVER_CIPHERS));
    put(params->Macalgo, setting(SERVER_MACS));
    debug_print("Kexalgo_list:=%s", params->Kexalgo);
    debug_print("HostkeyAlgo_list:=%s", params->Hostkeyalgo);
    debug_print("ciphers:=%s", params->Cipheralgo);
    debug_print("hmacalgo:=%s", params->Macalgo);
}

void fill_numbers(ssh_server_params* params) {
    params->Dscp = static_cast<uint32_t>(strtol(setting(SERVER_IP_QOS), nullptr, 16));
    params->Ratelimit = number_of(SERVER_RATE_LIMIT);
    params->Sessionlimit = number_of(SERVER_SESSION_LIMIT);
    params->Windowscalefactor = number_of(SERVER_WINDOW_SCALE);
    params->Maxauthlimit = number_of(SERVER_MAX_AUTH_TRIES);
    int volume = 0;
    int minutes = 0;
    sscanf(setting(SERVER_REKEY_LIMIT), "%dM %dm", &volume, &minutes);
    params->Rekeyvolume = static_cast<uint32_t>(volume);
    params->Rekeytime = static_cast<uint32_t>(minutes);
    debug_print("ratelimit:=%s", setting(SERVER_RATE_LIMIT));
    debug_print("DSCP:=%s", setting(SERVER_IP_QOS));
    debug_print("sessionlimit:=%s", setting(SERVER_SESSION_LIMIT));
    debug_print("rekeyVal:=%s", setting(SERVER_REKEY_LIMIT));
    debug_print("windowScale:=%s", setting(SERVER_WINDOW_SCALE));
    debug_print("Max auth limit = %s", setting(SERVER_MAX_AUTH_TRIES));
}

const char* port_forwarding_text() {
    const char* text = setting(SERVER_ALLOW_TCP_FORWARDING);
    if (strcmp(text, "no") == 0) {
        return "Disabled";
    }
    return strcmp(text, "local") == 0 ? "local" : "Invalid";
}

const char* certificate_username_text(int mode) {
    debug_print("Certificate username = %d", mode);
    switch (mode) {
        case 1:
            return "Common name(CN)";
        case 2:
            return "User principle name(UPN)";
        default:
            return "Common name(CN) User principle name(UPN)";
    }
}

}  // namespace

void fill_server_params(ssh_server_params* params) {
    memset(params, 0, sizeof(*params));
    put(params->Version, "v2");
    debug_print("version:=%s", params->Version);
    params->Port = 22;
    params->Netconfport = 830;
    put(params->Netconfver, "1.1");
    put(params->Backupserver, "Disabled");
    fill_algorithms(params);
    fill_numbers(params);
    fill_vrfs(server_config.nodes, params);
    put(params->Trustpointhost, setting(SERVER_HOST_TRUSTPOINT));
    // Joined from the names themselves: the line in the server's file is shorter.
    join_user_trustpoints(params->Trustpointuser, sizeof(params->Trustpointuser));
    params->Passwordauthen = params->Keyboardinteractiveauthen = params->Pubkeyauthen = params->Certificateauthen = 1;
    put(params->Portforwarding, port_forwarding_text());
    put(params->CertificateUsername, certificate_username_text(atoi(setting(SERVER_CERTIFICATE_USERNAME))));
}

platform_status get_ssh_server_params(datastore_read_request* request) {
    ssh_server_params params;
    fill_server_params(&params);
    void* encoded = nullptr;
    size_t size = 0;
    platform_status status = record_encode(ssh_server_params_descriptor(), &params, &encoded, &size);
    if (status != PLATFORM_OK) {
        log_location(ERR_BAG_ENCODE, status, "ssh server parameters");
        trace_error(oper_trace_encode, {"ssh server parameters", status});
        return status;
    }
    status = datastore_request_set_record(request, ssh_server_params_descriptor(), encoded, size);
    free(encoded);
    return status;
}
