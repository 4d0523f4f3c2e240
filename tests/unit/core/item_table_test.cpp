#include "core/item_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <string>

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
#include "golden.h"
#include "vrf/vrf_appliers.h"

namespace {

using item_table_test = agent_test;
using testing::ElementsAre;

/// The functions of every row, by name.
struct named_functions {
    const char* verifier;
    datastore_item_verifier verify;
    const char* applier;
    datastore_item_applier apply;
};

constexpr named_functions rows[] = {
#define ITEM(path, kind, verifier, applier) {#verifier, verifier, #applier, applier},
#define SETTING(path, verifier, applier, ...) {#verifier, verifier, #applier, applier},
#include "config_files/configuration.def"
};

std::string verifier_name(datastore_item_verifier verify) {
    const auto* row = std::ranges::find(rows, verify, &named_functions::verify);
    return row != std::end(rows) ? row->verifier : "unknown verifier";
}

std::string applier_name(datastore_item_applier apply) {
    const auto* row = std::ranges::find(rows, apply, &named_functions::apply);
    return row != std::end(rows) ? row->applier : "unknown applier";
}

const char* kind_name(uint32_t kind) {
    return kind == DATASTORE_VALUE_NUMBER ? "number" : kind == DATASTORE_VALUE_TEXT ? "text" : "tuple";
}

const datastore_item_node& node_at(int32_t index) {
    return item_table.nodes[index];
}

/// The nodes from a row of siblings on, depth first: each path, and the number, kind and functions of its handler.
std::string tree_text(int32_t index, const std::string& parent) {
    std::string text;
    for (; index != -1; index = node_at(index).next_sibling) {
        const datastore_item_node& node = node_at(index);
        const std::string path = parent + (node.type == DATASTORE_NODE_WILDCARD ? "*" : node.name);
        text += path;
        if (node.handler != -1) {
            const datastore_item_handler& handler = item_table.handlers[node.handler];
            text += " (" + std::to_string(node.handler) + ") " + kind_name(handler.value_kind) + ' ' +
                    verifier_name(handler.verify) + ' ' + applier_name(handler.apply);
        }
        text += '\n';
        text += tree_text(node.first_child, path + '/');
    }
    return text;
}

TEST_F(item_table_test, has_these_nodes_and_handlers) {
    expect_golden("core/golden/item_table", tree_text(0, ""));
    EXPECT_EQ(item_table.node_count, 61u);
    EXPECT_EQ(item_table.handler_count, 44u);
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

// --- The two callbacks -----------------------------------------------------------------------------------------------

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
