#include "core/item_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "../agent_test.h"
#include "appliers/algorithm_lists.h"
#include "appliers/algorithm_verifiers.h"
#include "appliers/client_settings.h"
#include "appliers/host_key_algorithms.h"
#include "appliers/mac_disabling.h"
#include "appliers/server_settings.h"
#include "appliers/settings.h"
#include "appliers/trustpoints.h"
#include "appliers/user_keys.h"
#include "appliers/vrf_name_verifier.h"
#include "core/debug.h"
#include "core/default_handlers.h"
#include "vrf/vrf_appliers.h"

namespace {

using item_table_test = agent_test;
using testing::ElementsAre;

constexpr uint32_t number = 1;
constexpr uint32_t text = 3;
constexpr uint32_t tuple = 5;

struct expected_item {
    const char* path;
    uint32_t kind;
    datastore_item_verifier verify;
    datastore_item_applier apply;
};

// In the order of the handlers.
const expected_item items[] = {
    {"sshd/vrf/NAME", tuple, vrf_name_verifier, sshd_apply_vrf_func},
    {"sshd/v2", number, default_verifier, sshd_apply_ver_func},
    {"cmn/v1", number, default_verifier, unsupported_item_applier},
    {"sshd/vrf-netconf/NAME", tuple, vrf_name_verifier, sshd_apply_conf_netconf_vrf},
    {"sshd/netconf", number, default_verifier, unsupported_item_applier},
    {"portnvrf", tuple, default_verifier, unsupported_item_applier},
    {"cmn/timeout", number, default_verifier, sshd_apply_timeout},
    {"cmn/rate_limit", number, default_verifier, sshd_apply_rate_limit},
    {"cmn/disable/hmac/hmac_sha512", number, server_mac_disable_verifier, sshd_apply_disable_hmac_sha512},
    {"cmn/disable/hmac/hmac_sha1", number, server_mac_disable_verifier, sshd_apply_disable_hmac_sha1},
    {"cmn/disable/hmac/hmac_sha256", number, server_mac_disable_verifier, sshd_apply_disable_hmac_sha256},
    {"cmn/enable/cipher", tuple, default_verifier, sshd_apply_cipher},
    {"cmn/session_limit", number, default_verifier, sshd_apply_session_limit},
    {"cmn/logging", number, default_verifier, sshd_apply_logging},
    {"cmn/dscp", number, default_verifier, sshd_apply_dscp},
    {"cmn/capability/netconf-xml", number, default_verifier, default_applier},
    {"cmn/rekey_time", number, default_verifier, sshd_apply_rekey_time},
    {"cmn/rekey_volume", number, default_verifier, sshd_apply_rekey_volume},
    {"cmn/algorithms/key-exchange", tuple, kex_verifier, sshd_apply_kexalgo},
    {"cmn/algorithms/cipher", tuple, cipher_verifier, sshd_apply_cipheralgo},
    {"cmn/algorithms/host-key", tuple, host_key_verifier, sshd_apply_hostkeyalgo},
    {"cmn/tcp_window_scale", number, default_verifier, sshd_apply_tcp_window_scale},
    {"cmn/username/NAME", number, default_verifier, default_applier},
    {"cmn/username/NAME/keystr", text, user_key_verifier, sshd_apply_user_keystr},
    {"cmn/trustpoint/host", text, default_verifier, sshd_apply_trustpoint_host},
    {"cmn/trustpoint/user/NAME", number, user_trustpoint_verifier, sshd_apply_trustpoint_user},
    {"cmn/certificate/username", tuple, default_verifier, ssh_apply_certificate_username},
    {"cmn/max_auth_limit", number, default_verifier, sshd_apply_max_auth_limit},
    {"cmn/port_forwarding", number, default_verifier, sshd_apply_port_forwarding},
    {"dscp", number, default_verifier, ssh_client_apply_dscp},
    {"rekey_time", number, default_verifier, ssh_client_apply_rekey_time},
    {"rekey_volume", number, default_verifier, ssh_client_apply_rekey_volume},
    {"algorithms/key-exchange", tuple, kex_verifier, ssh_client_apply_kexalgo},
    {"algorithms/cipher", tuple, cipher_verifier, ssh_client_apply_cipheralgo},
    {"disable/hmac/hmac_sha1", number, client_mac_disable_verifier, ssh_client_apply_disable_hmac_sha1},
    {"disable/hmac/hmac_sha512", number, client_mac_disable_verifier, ssh_client_apply_disable_hmac_sha512},
    {"disable/hmac/hmac_sha256", number, client_mac_disable_verifier, ssh_client_apply_disable_hmac_sha256},
    {"enable/cipher", tuple, default_verifier, ssh_client_apply_cipher},
    {"host_pubkey", text, default_verifier, ssh_client_apply_known_hosts},
    {"vrf", text, default_verifier, default_applier},
    {"v2", number, default_verifier, ssh_client_apply_v2},
    {"v1", number, default_verifier, unsupported_item_applier},
    {"source", text, default_verifier, default_applier},
    {"tcp_window_scale", number, default_verifier, ssh_client_apply_tcp_window_scale},
};

const datastore_item_node& node_at(int32_t index) {
    return item_table.nodes[index];
}

std::vector<std::string> split(std::string_view path) {
    std::vector<std::string> components(1);
    for (const char character : path) {
        if (character == '/') {
            components.emplace_back();
        } else {
            components.back() += character;
        }
    }
    return components;
}

/// The node that a walk of the siblings ends at; -1 when there is none.
int32_t find_node(std::string_view path) {
    int32_t siblings = 0;
    int32_t found = -1;
    for (const std::string& component : split(path)) {
        found = siblings;
        while (found != -1 && node_at(found).type != DATASTORE_NODE_WILDCARD && node_at(found).name != component) {
            found = node_at(found).next_sibling;
        }
        if (found == -1) {
            return -1;
        }
        siblings = node_at(found).first_child;
    }
    return found;
}

/// The names of a row of siblings, "*" for a wildcard.
std::vector<std::string> names_from(int32_t index) {
    std::vector<std::string> names;
    for (; index != -1; index = node_at(index).next_sibling) {
        names.push_back(node_at(index).type == DATASTORE_NODE_WILDCARD ? "*" : node_at(index).name);
    }
    return names;
}

std::vector<std::string> children_of(std::string_view path) {
    const int32_t node = find_node(path);
    return node == -1 ? std::vector<std::string>{"no such node"} : names_from(node_at(node).first_child);
}

TEST_F(item_table_test, has_61_nodes_and_44_handlers) {
    EXPECT_EQ(item_table.node_count, 61u);
    EXPECT_EQ(item_table.handler_count, 44u);
    EXPECT_EQ(std::size(items), 44u);
}

TEST_F(item_table_test, every_path_leads_to_its_handler) {
    for (size_t i = 0; i < std::size(items); i++) {
        const int32_t node = find_node(items[i].path);
        ASSERT_NE(node, -1) << items[i].path;
        ASSERT_EQ(node_at(node).handler, static_cast<int32_t>(i)) << items[i].path;
        const datastore_item_handler& handler = item_table.handlers[i];
        EXPECT_EQ(handler.value_kind, items[i].kind) << items[i].path;
        EXPECT_EQ(handler.verify, items[i].verify) << items[i].path;
        EXPECT_EQ(handler.apply, items[i].apply) << items[i].path;
    }
}

TEST_F(item_table_test, siblings_stand_in_their_order) {
    EXPECT_THAT(names_from(0),
                ElementsAre("sshd", "cmn", "portnvrf", "dscp", "rekey_time", "rekey_volume", "algorithms", "disable",
                            "enable", "host_pubkey", "vrf", "v2", "v1", "source", "tcp_window_scale"));
    EXPECT_THAT(children_of("sshd"), ElementsAre("vrf", "v2", "vrf-netconf", "netconf"));
    EXPECT_THAT(children_of("sshd/vrf"), ElementsAre("*"));
    EXPECT_THAT(children_of("sshd/vrf-netconf"), ElementsAre("*"));
    EXPECT_THAT(children_of("cmn"),
                ElementsAre("v1", "timeout", "rate_limit", "disable", "enable", "session_limit", "logging", "dscp",
                            "capability", "rekey_time", "rekey_volume", "algorithms", "tcp_window_scale", "username",
                            "trustpoint", "certificate", "max_auth_limit", "port_forwarding"));
    EXPECT_THAT(children_of("cmn/disable"), ElementsAre("hmac"));
    EXPECT_THAT(children_of("cmn/disable/hmac"), ElementsAre("hmac_sha512", "hmac_sha1", "hmac_sha256"));
    EXPECT_THAT(children_of("cmn/enable"), ElementsAre("cipher"));
    EXPECT_THAT(children_of("cmn/capability"), ElementsAre("netconf-xml"));
    EXPECT_THAT(children_of("cmn/algorithms"), ElementsAre("key-exchange", "cipher", "host-key"));
    EXPECT_THAT(children_of("cmn/username"), ElementsAre("*"));
    EXPECT_THAT(children_of("cmn/username/NAME"), ElementsAre("keystr"));
    EXPECT_THAT(children_of("cmn/trustpoint"), ElementsAre("host", "user"));
    EXPECT_THAT(children_of("cmn/trustpoint/user"), ElementsAre("*"));
    EXPECT_THAT(children_of("cmn/certificate"), ElementsAre("username"));
    EXPECT_THAT(children_of("algorithms"), ElementsAre("key-exchange", "cipher"));
    EXPECT_THAT(children_of("disable"), ElementsAre("hmac"));
    EXPECT_THAT(children_of("disable/hmac"), ElementsAre("hmac_sha1", "hmac_sha512", "hmac_sha256"));
    EXPECT_THAT(children_of("enable"), ElementsAre("cipher"));
}

TEST_F(item_table_test, the_nodes_agree_with_themselves) {
    std::set<int32_t> reached{0};
    for (uint32_t i = 0; i < item_table.node_count; i++) {
        const datastore_item_node& node = item_table.nodes[i];
        EXPECT_EQ(node.type, node.name != nullptr ? DATASTORE_NODE_NAMED : DATASTORE_NODE_WILDCARD);
        EXPECT_EQ(node.inner, node.first_child != -1 ? 1u : 0u);
        // Only a user is an item as well as a parent.
        if (node.inner != 0) {
            EXPECT_EQ(node.handler != -1, node.type == DATASTORE_NODE_WILDCARD);
        } else {
            EXPECT_NE(node.handler, -1);
        }
        for (const int32_t next : {node.first_child, node.next_sibling}) {
            if (next != -1) {
                ASSERT_LT(next, static_cast<int32_t>(item_table.node_count));
                EXPECT_TRUE(reached.insert(next).second) << "node " << next << " is reached twice";
            }
        }
    }
    EXPECT_EQ(reached.size(), item_table.node_count);
}

// --- The two callbacks ----------------------------------------------------------------------------------------------

struct dispatch_result {
    platform_status status;
    uint32_t accepted = 0;
};

dispatch_result verify(const char* item, const datastore_change& change) {
    char* error_text = nullptr;
    dispatch_result result{};
    const datastore_backend_call call{item, &change, &error_text, &result.accepted};
    result.status = verify_configuration(&call, nullptr);
    free(error_text);
    return result;
}

platform_status apply(const char* item, const datastore_change& change) {
    const datastore_backend_call call{item, &change, nullptr, nullptr};
    return apply_configuration(&call, nullptr);
}

const uint32_t one = 1;
const datastore_change set_one{DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET, nullptr, &one, 0, sizeof one};
const datastore_change removal{DATASTORE_EVENT_DELETE, &one, nullptr, sizeof one, 0};

TEST_F(item_table_test, the_protocol_version_1_and_the_backup_server_are_accepted_with_a_warning) {
    for (const char* item : {"cmn/v1", "v1", "sshd/netconf", "portnvrf"}) {
        fake_platform::clear_reports();
        EXPECT_EQ(verify(item, set_one).status, PLATFORM_OK);
        EXPECT_EQ(verify(item, set_one).accepted, 1u);
        EXPECT_EQ(apply(item, set_one), PLATFORM_OK);
        EXPECT_THAT(
            fake_platform::log_texts(),
            ElementsAre("WARNING_GENERAL: Backup server, netconf-port configs, ssh v1 are not supported in this "
                        "platform and release, will not take effect"));
        EXPECT_FALSE(path_exists(paths::server_file));
    }
}

TEST_F(item_table_test, items_without_effect_are_accepted_silently) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    for (const char* item : {"cmn/capability/netconf-xml", "cmn/username/admin", "vrf", "source"}) {
        fake_platform::clear_reports();
        EXPECT_EQ(verify(item, set_one).accepted, 1u);
        EXPECT_EQ(apply(item, set_one), PLATFORM_OK);
        EXPECT_EQ(apply(item, removal), PLATFORM_OK);
        EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
        EXPECT_THAT(
            fake_platform::debug_texts(),
            ElementsAre("SSH default verifier entered", "SSH default applier entered", "SSH default applier entered"));
    }
}

TEST_F(item_table_test, an_item_that_nobody_handles_is_refused_and_logged_once) {
    const std::string failure = std::string("ERR_ERRNO: Error:=") + platform_status_text(DATASTORE_NO_HANDLER);
    for (const char* item : {"no/such/item", "sshd/vrf", "cmn", ""}) {
        fake_platform::clear_reports();
        EXPECT_EQ(verify(item, set_one).status, uint32_t{DATASTORE_NO_HANDLER}) << item;
        EXPECT_THAT(fake_platform::log_texts(), ElementsAre(failure + "(0x40818a00), backend verify failed"));
        fake_platform::clear_reports();
        EXPECT_EQ(apply(item, set_one), uint32_t{DATASTORE_NO_HANDLER}) << item;
        EXPECT_THAT(fake_platform::log_texts(), ElementsAre(failure + "(0x40818a00), backend apply failed"));
    }
}

TEST_F(item_table_test, an_appliers_failure_is_logged_and_returned) {
    const uint32_t two = 2;
    const datastore_change set_two{DATASTORE_EVENT_SET, nullptr, &two, 0, sizeof two};
    EXPECT_EQ(apply("cmn/port_forwarding", set_two), 1u);
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=Operation not permitted(0x1), backend apply failed"));
}

TEST_F(item_table_test, a_verifiers_refusal_is_logged_and_returned) {
    const dispatch_result result = verify("sshd/vrf/a b", set_one);
    EXPECT_EQ(result.status, uint32_t{EINVAL});
    EXPECT_EQ(result.accepted, 0u);
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=Invalid argument(0x16), backend verify failed"));
}

}  // namespace
