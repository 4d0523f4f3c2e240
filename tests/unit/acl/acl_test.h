/// Fixture of the access-list tests: two VRFs, lists in the fake datastore, and helpers that make entries.
#ifndef UNIT_ACL_TEST_H
#define UNIT_ACL_TEST_H

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../agent_test.h"
#include "acl/nft_files.h"
#include "acl/rule_conversion.h"
#include "acl/subscription.h"
#include "config_files/parameter_table.h"
#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "core/text.h"
#include "platform/acl_entry.h"
#include "platform/acl_service.h"
#include "platform/record_codec.h"
#include "scratch_root.h"
#include "vrf/node_registry.h"

inline constexpr uint32_t deny = 0;
inline constexpr uint32_t permit = 1;

/// TCP from anywhere to anywhere.
inline acl_ipv4_entry ipv4_entry(uint32_t grant = permit) {
    acl_ipv4_entry entry = {};
    entry.Grant = static_cast<int32_t>(grant);
    entry.ProtocolOperator = ACL_PROTOCOL_EQUAL;
    entry.Protocol = ACL_PROTOCOL_TCP;
    entry.SourceAddressMask = UINT32_MAX;
    entry.DestinationAddressMask = UINT32_MAX;
    return entry;
}

inline acl_ipv6_entry ipv6_entry(uint32_t grant = permit) {
    acl_ipv6_entry entry = {};
    entry.IsPacketAllowOrDeny = static_cast<int32_t>(grant);
    entry.IsProtocolOperator = ACL_PROTOCOL_EQUAL;
    entry.IsIPV6ProtocolType = ACL_PROTOCOL_TCP;
    return entry;
}

/// An address or mask in network byte order.
inline uint32_t ipv4(const char* text) {
    in_addr address = {};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1) << text;
    return address.s_addr;
}

inline void put_ipv6(uint8_t (&to)[16], const char* text) {
    EXPECT_EQ(inet_pton(AF_INET6, text, to), 1) << text;
}

template <typename entry_type>
std::string encoded(const record_descriptor* descriptor, const entry_type& entry) {
    void* bytes = nullptr;
    size_t size = 0;
    EXPECT_EQ(record_encode(descriptor, &entry, &bytes, &size), PLATFORM_OK);
    std::string record(static_cast<const char*>(bytes), size);
    free(bytes);
    return record;
}

/// Registers the forms of the entries, which the platform does otherwise.
inline void register_acl_entries() {
    record_transaction* transaction = nullptr;
    ASSERT_EQ(record_registration_begin(&transaction), PLATFORM_OK);
    ASSERT_EQ(record_register(transaction, acl_service_ipv4_entry_descriptor()), PLATFORM_OK);
    ASSERT_EQ(record_register(transaction, acl_service_ipv6_entry_descriptor()), PLATFORM_OK);
    ASSERT_EQ(record_registration_end(transaction), PLATFORM_OK);
}

class acl_test : public agent_test {
  protected:
    acl_test() {
        register_acl_entries();
        fake_platform::preset_debug_flag(debug_cfg_agent, true);
        red = create_vrf_node("red");
        blue = create_vrf_node("blue");
        scratch_root::add_namespace_file("vrf-red");
        scratch_root::add_namespace_file("vrf-blue");
        agent_handles.event_manager = nullptr;
    }

    ~acl_test() override { forget_vrf_nodes(); }

    static std::string list_path(const std::string& name) {
        return "/oper/ipv4-acl/gl/show/access-list/" + name + "/sequencetable/";
    }
    static std::string ipv6_list_path(const std::string& name) {
        return "/oper/ipv6-acl/gl/daemon/list/" + name + "/sequencetable/";
    }

    static void set_list(const std::string& name, const std::vector<acl_ipv4_entry>& entries) {
        std::vector<std::pair<std::string, std::string>> records;
        for (const acl_ipv4_entry& entry : entries) {
            records.emplace_back(std::to_string(records.size() * 10 + 10),
                                 encoded(acl_service_ipv4_entry_descriptor(), entry));
        }
        fake_platform::set_list(list_path(name), records);
    }

    static void set_ipv6_list(const std::string& name, const std::vector<acl_ipv6_entry>& entries) {
        std::vector<std::pair<std::string, std::string>> records;
        for (const acl_ipv6_entry& entry : entries) {
            records.emplace_back(std::to_string(records.size() * 10 + 10),
                                 encoded(acl_service_ipv6_entry_descriptor(), entry));
        }
        fake_platform::set_list(ipv6_list_path(name), records);
    }

    template <size_t size>
    static void name(char (&field)[size], const char* text) {
        copy_text(field, size, text);
    }

    static std::string rule_file(const std::string& vrf, const std::string& table) {
        return "/tmp/norvo-ssh/access-list/vrf-" + vrf + "_" + table + ".nft";
    }

    static std::vector<std::string> loads() { return stub_commands::log_of("ip netns exec"); }

    vrf_node* red = nullptr;
    vrf_node* blue = nullptr;
};

#endif
