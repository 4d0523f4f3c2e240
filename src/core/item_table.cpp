#include "core/item_table.h"

#include <array>
#include <iterator>

#include "appliers/algorithm_lists.h"
#include "appliers/algorithm_verifiers.h"
#include "appliers/client_settings.h"
#include "appliers/host_key_algorithms.h"
#include "appliers/mac_disabling.h"
#include "appliers/server_settings.h"
#include "appliers/trustpoints.h"
#include "appliers/user_keys.h"
#include "appliers/vrf_name_verifier.h"
#include "core/default_handlers.h"
#include "core/log.h"
#include "core/trace_points.h"
#include "vrf/vrf_appliers.h"

namespace {

constexpr uint32_t number = DATASTORE_VALUE_NUMBER;
constexpr uint32_t text = DATASTORE_VALUE_TEXT;
constexpr uint32_t tuple = DATASTORE_VALUE_TUPLE;

constexpr datastore_item_handler handlers[] = {
    /* 0  sshd/vrf/NAME                  */ {tuple, vrf_name_verifier, sshd_apply_vrf_func},
    /* 1  sshd/v2                        */ {number, default_verifier, sshd_apply_ver_func},
    /* 2  cmn/v1                         */ {number, default_verifier, unsupported_item_applier},
    /* 3  sshd/vrf-netconf/NAME          */ {tuple, vrf_name_verifier, sshd_apply_conf_netconf_vrf},
    /* 4  sshd/netconf                   */ {number, default_verifier, unsupported_item_applier},
    /* 5  portnvrf                       */ {tuple, default_verifier, unsupported_item_applier},
    /* 6  cmn/timeout                    */ {number, default_verifier, sshd_apply_timeout},
    /* 7  cmn/rate_limit                 */ {number, default_verifier, sshd_apply_rate_limit},
    /* 8  cmn/disable/hmac/hmac_sha512   */ {number, server_mac_disable_verifier, sshd_apply_disable_hmac_sha512},
    /* 9  cmn/disable/hmac/hmac_sha1     */ {number, server_mac_disable_verifier, sshd_apply_disable_hmac_sha1},
    /* 10 cmn/disable/hmac/hmac_sha256   */ {number, server_mac_disable_verifier, sshd_apply_disable_hmac_sha256},
    /* 11 cmn/enable/cipher              */ {tuple, default_verifier, sshd_apply_cipher},
    /* 12 cmn/session_limit              */ {number, default_verifier, sshd_apply_session_limit},
    /* 13 cmn/logging                    */ {number, default_verifier, sshd_apply_logging},
    /* 14 cmn/dscp                       */ {number, default_verifier, sshd_apply_dscp},
    /* 15 cmn/capability/netconf-xml     */ {number, default_verifier, default_applier},
    /* 16 cmn/rekey_time                 */ {number, default_verifier, sshd_apply_rekey_time},
    /* 17 cmn/rekey_volume               */ {number, default_verifier, sshd_apply_rekey_volume},
    /* 18 cmn/algorithms/key-exchange    */ {tuple, kex_verifier, sshd_apply_kexalgo},
    /* 19 cmn/algorithms/cipher          */ {tuple, cipher_verifier, sshd_apply_cipheralgo},
    /* 20 cmn/algorithms/host-key        */ {tuple, host_key_verifier, sshd_apply_hostkeyalgo},
    /* 21 cmn/tcp_window_scale           */ {number, default_verifier, sshd_apply_tcp_window_scale},
    /* 22 cmn/username/NAME              */ {number, default_verifier, default_applier},
    /* 23 cmn/username/NAME/keystr       */ {text, user_key_verifier, sshd_apply_user_keystr},
    /* 24 cmn/trustpoint/host            */ {text, default_verifier, sshd_apply_trustpoint_host},
    /* 25 cmn/trustpoint/user/NAME       */ {number, user_trustpoint_verifier, sshd_apply_trustpoint_user},
    /* 26 cmn/certificate/username       */ {tuple, default_verifier, ssh_apply_certificate_username},
    /* 27 cmn/max_auth_limit             */ {number, default_verifier, sshd_apply_max_auth_limit},
    /* 28 cmn/port_forwarding            */ {number, default_verifier, sshd_apply_port_forwarding},
    /* 29 dscp                           */ {number, default_verifier, ssh_client_apply_dscp},
    /* 30 rekey_time                     */ {number, default_verifier, ssh_client_apply_rekey_time},
    /* 31 rekey_volume                   */ {number, default_verifier, ssh_client_apply_rekey_volume},
    /* 32 algorithms/key-exchange        */ {tuple, kex_verifier, ssh_client_apply_kexalgo},
    /* 33 algorithms/cipher              */ {tuple, cipher_verifier, ssh_client_apply_cipheralgo},
    /* 34 disable/hmac/hmac_sha1         */ {number, client_mac_disable_verifier, ssh_client_apply_disable_hmac_sha1},
    /* 35 disable/hmac/hmac_sha512       */ {number, client_mac_disable_verifier, ssh_client_apply_disable_hmac_sha512},
    /* 36 disable/hmac/hmac_sha256       */ {number, client_mac_disable_verifier, ssh_client_apply_disable_hmac_sha256},
    /* 37 enable/cipher                  */ {tuple, default_verifier, ssh_client_apply_cipher},
    /* 38 host_pubkey                    */ {text, default_verifier, ssh_client_apply_known_hosts},
    /* 39 vrf                            */ {text, default_verifier, default_applier},
    /* 40 v2                             */ {number, default_verifier, ssh_client_apply_v2},
    /* 41 v1                             */ {number, default_verifier, unsupported_item_applier},
    /* 42 source                         */ {text, default_verifier, default_applier},
    /* 43 tcp_window_scale               */ {number, default_verifier, ssh_client_apply_tcp_window_scale},
};

/// A node of the tree below, in the order in which a walk meets it: what has a greater depth than its predecessor is
/// that one's first child.
struct tree_row {
    uint32_t depth;
    const char* name;
    int32_t handler;
};

constexpr const char* any_name = nullptr;
constexpr int32_t no_handler = -1;
constexpr int32_t no_node = -1;

// clang-format off
constexpr tree_row tree[] = {
    {0, "sshd", no_handler},
        {1, "vrf", no_handler},
            {2, any_name, 0},
        {1, "v2", 1},
        {1, "vrf-netconf", no_handler},
            {2, any_name, 3},
        {1, "netconf", 4},
    {0, "cmn", no_handler},
        {1, "v1", 2},
        {1, "timeout", 6},
        {1, "rate_limit", 7},
        {1, "disable", no_handler},
            {2, "hmac", no_handler},
                {3, "hmac_sha512", 8},
                {3, "hmac_sha1", 9},
                {3, "hmac_sha256", 10},
        {1, "enable", no_handler},
            {2, "cipher", 11},
        {1, "session_limit", 12},
        {1, "logging", 13},
        {1, "dscp", 14},
        {1, "capability", no_handler},
            {2, "netconf-xml", 15},
        {1, "rekey_time", 16},
        {1, "rekey_volume", 17},
        {1, "algorithms", no_handler},
            {2, "key-exchange", 18},
            {2, "cipher", 19},
            {2, "host-key", 20},
        {1, "tcp_window_scale", 21},
        {1, "username", no_handler},
            {2, any_name, 22},  // an item of its own, and the parent of the user's key
                {3, "keystr", 23},
        {1, "trustpoint", no_handler},
            {2, "host", 24},
            {2, "user", no_handler},
                {3, any_name, 25},
        {1, "certificate", no_handler},
            {2, "username", 26},
        {1, "max_auth_limit", 27},
        {1, "port_forwarding", 28},
    {0, "portnvrf", 5},
    {0, "dscp", 29},
    {0, "rekey_time", 30},
    {0, "rekey_volume", 31},
    {0, "algorithms", no_handler},
        {1, "key-exchange", 32},
        {1, "cipher", 33},
    {0, "disable", no_handler},
        {1, "hmac", no_handler},
            {2, "hmac_sha1", 34},
            {2, "hmac_sha512", 35},
            {2, "hmac_sha256", 36},
    {0, "enable", no_handler},
        {1, "cipher", 37},
    {0, "host_pubkey", 38},
    {0, "vrf", 39},
    {0, "v2", 40},
    {0, "v1", 41},
    {0, "source", 42},
    {0, "tcp_window_scale", 43},
};
// clang-format on

constexpr size_t node_count = std::size(tree);

constexpr int32_t first_child(size_t row) {
    const size_t next = row + 1;
    return next < node_count && tree[next].depth > tree[row].depth ? static_cast<int32_t>(next) : no_node;
}

constexpr int32_t next_sibling(size_t row) {
    for (size_t next = row + 1; next < node_count && tree[next].depth >= tree[row].depth; next++) {
        if (tree[next].depth == tree[row].depth) {
            return static_cast<int32_t>(next);
        }
    }
    return no_node;
}

constexpr std::array<datastore_item_node, node_count> make_nodes() {
    std::array<datastore_item_node, node_count> nodes{};
    for (size_t row = 0; row < node_count; row++) {
        const uint32_t type = tree[row].name != any_name ? DATASTORE_NODE_NAMED : DATASTORE_NODE_WILDCARD;
        const int32_t child = first_child(row);
        nodes[row] = {tree[row].name, type, child, next_sibling(row), tree[row].handler, child != no_node ? 1U : 0U};
    }
    return nodes;
}

constexpr std::array<datastore_item_node, node_count> nodes = make_nodes();

platform_status report(platform_status status, const char* item, const char* failure) {
    if (status != PLATFORM_OK) {
        trace_error(core_trace_dispatch, {item, status});
        log_status(ERR_ERRNO, status, failure);
    }
    return status;
}

}  // namespace

const datastore_item_table item_table = {nodes.data(), node_count, handlers, std::size(handlers)};

platform_status verify_configuration(const datastore_backend_call* call, void*) {
    return report(datastore_backend_verify(call, &item_table), call->item, "backend verify failed");
}

platform_status apply_configuration(const datastore_backend_call* call, void*) {
    return report(datastore_backend_apply(call, &item_table), call->item, "backend apply failed");
}
