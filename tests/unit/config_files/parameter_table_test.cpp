#include "config_files/parameter_table.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "../agent_test.h"
#include "config_files/algorithm_names.h"
#include "config_files/vrf_node.h"
#include "golden.h"

namespace {

using parameter_table_test = agent_test;

/// Lists that the golden file of algorithm_tables_test contains.
const std::pair<const char*, const char*> default_lists[] = {
    {"default_kex_list", default_kex_list},
    {"default_cipher_list", default_cipher_list},
    {"default_mac_list", default_mac_list},
    {"default_server_host_key_algorithms", default_server_host_key_algorithms},
    {"default_client_host_key_algorithms", default_client_host_key_algorithms},
    {"default_host_keys", default_host_keys},
};

std::string shown(const char* text) {
    if (text == nullptr) {
        return "null";
    }
    for (const auto& [name, list] : default_lists) {
        if (std::string(text) == list) {
            return name;
        }
    }
    return '"' + std::string(text) + '"';
}

/// One line per entry: keyword, default and current text, and whether the entry belongs into all VRFs' files.
template <typename Entry, size_t Count>
std::string table_text(const Entry (&entries)[Count]) {
    std::string text;
    for (const Entry& entry : entries) {
        text += shown(entry.keyword) + ' ' + shown(entry.default_text) + ' ' + shown(entry.current);
        if constexpr (requires { entry.second_current; }) {
            text += ' ' + shown(entry.second_current);
        }
        text += entry.allvrf != 0 ? " all VRFs\n" : "\n";
    }
    return text;
}

TEST_F(parameter_table_test, initial_entries) {
    expect_golden("config_files/golden/parameter_tables",
                  "server settings\n" + table_text(server_config.parameters) + "\nserver lists\n" +
                      table_text(server_config.algorithms) + "\nclient settings\n" +
                      table_text(client_config.parameters) + "\nclient lists\n" + table_text(client_config.algorithms));
}

TEST_F(parameter_table_test, texts_edited_by_appliers) {
    EXPECT_STREQ(server_config.cipher_base, default_cipher_list);
    EXPECT_STREQ(server_config.algorithms[SERVER_CIPHERS].text, default_cipher_list);
    EXPECT_STREQ(server_config.parameters[SERVER_MACS].text, default_mac_list);
    EXPECT_STREQ(server_config.parameters[SERVER_IP_QOS].text, "0x10");
    EXPECT_STREQ(server_config.parameters[SERVER_HOST_TRUSTPOINT].text, "");
    EXPECT_STREQ(client_config.cipher_base, default_cipher_list);
    EXPECT_STREQ(client_config.algorithms[CLIENT_CIPHERS].text, default_cipher_list);
    EXPECT_STREQ(client_config.parameters[CLIENT_MACS].text, default_mac_list);
    EXPECT_STREQ(client_config.parameters[CLIENT_IP_QOS].text, "0x10");
    EXPECT_STREQ(client_config.parameters[CLIENT_WINDOW_SCALE].text, "");
    EXPECT_EQ(sizeof server_config.cipher_base, 201u);
    EXPECT_EQ(sizeof server_config.parameters[SERVER_MACS].text, 201u);
    EXPECT_EQ(sizeof server_config.algorithms[SERVER_KEX_ALGORITHMS].text, 230u);
    EXPECT_EQ(sizeof server_config.algorithms[SERVER_KEX_ALGORITHMS].fips_text, 255u);
}

// Two entries with the same keyword differ only in their position.
TEST_F(parameter_table_test, an_index_refers_to_its_own_row) {
    EXPECT_STREQ(server_config.parameters[SERVER_PORT].default_text, "22");
    EXPECT_STREQ(server_config.parameters[SERVER_NETCONF_PORT].default_text, "830");
    EXPECT_STREQ(server_config.parameters[SERVER_LOGIN_GRACE_TIME].keyword, "LoginGraceTime");
    EXPECT_STREQ(server_config.parameters[SERVER_CERTIFICATE_USERNAME].keyword, "CertUsernameQd");
    EXPECT_STREQ(server_config.algorithms[SERVER_KEX_ALGORITHMS].keyword, "KexAlgorithms");
    EXPECT_STREQ(client_config.parameters[CLIENT_PUBKEY_AUTHENTICATION].keyword, "PubkeyAuthentication");
    EXPECT_STREQ(client_config.algorithms[CLIENT_HOST_KEY_ALGORITHMS].keyword, "HostKeyAlgorithms");
}

TEST_F(parameter_table_test, filling_restores_the_defaults_and_keeps_the_vrfs) {
    vrf_node node{};
    server_config.nodes = &node;
    server_config.parameters[SERVER_MAX_AUTH_TRIES].current = "5";
    server_config.algorithms[SERVER_CIPHERS].current = nullptr;
    server_config.parameters[SERVER_IP_QOS].text[0] = '\0';
    fill_parameter_tables();
    EXPECT_EQ(server_config.nodes, &node);
    EXPECT_STREQ(server_config.parameters[SERVER_MAX_AUTH_TRIES].current, "20");
    EXPECT_STREQ(server_config.algorithms[SERVER_CIPHERS].current, default_cipher_list);
    EXPECT_STREQ(server_config.parameters[SERVER_IP_QOS].text, "0x10");
}

// A keyword is searched for as the prefix of a line.
TEST_F(parameter_table_test, no_keyword_is_a_prefix_of_another) {
    std::vector<std::string> keywords;
    for (size_t i = SERVER_PROTOCOL; i < SERVER_END_MARKER; i++) {
        keywords.emplace_back(server_config.parameters[i].keyword);
    }
    for (size_t i = SERVER_HOST_KEY_ALGORITHMS; i < SERVER_ALGORITHM_END_MARKER; i++) {
        keywords.emplace_back(server_config.algorithms[i].keyword);
    }
    for (const std::string& one : keywords) {
        for (const std::string& other : keywords) {
            EXPECT_TRUE(one == other || !other.starts_with(one)) << one << " and " << other;
        }
    }
}

TEST_F(parameter_table_test, a_dscp_is_shifted_to_the_upper_bits_of_the_type_of_service) {
    const struct {
        const char* dscp;
        const char* type_of_service;
    } cases[] = {{"0x10", "0x40"}, {"0x2e", "0xb8"}, {"0x0", "0x0"}, {"10", "0x40"}, {"0x3f", "0xfc"}};
    for (const auto& test : cases) {
        char buffer[setting_text_size];
        ip_qos_text(test.dscp, buffer, sizeof buffer);
        EXPECT_STREQ(buffer, test.type_of_service);
    }
}

TEST_F(parameter_table_test, the_text_in_force_is_the_current_text_or_the_default) {
    EXPECT_STREQ(effective_text(server_config.parameters[SERVER_PORT]), "22");
    server_config.parameters[SERVER_PORT].current = "2222";
    EXPECT_STREQ(effective_text(server_config.parameters[SERVER_PORT]), "2222");
}

TEST_F(parameter_table_test, a_line_has_the_text_that_its_maker_makes_of_a_value) {
    const struct {
        line_text_maker make;
        const char* value;
        const char* text;
    } cases[] = {
        {PLAIN_VALUE, "8", "8"}, {ip_qos_text, "8", "0x20"}, {ip_qos_text, "", ""}, {ip_qos_text, nullptr, nullptr}};
    for (const auto& test : cases) {
        char buffer[setting_text_size];
        EXPECT_STREQ(text_of_line(test.make, test.value, buffer), test.text);
    }
}

TEST_F(parameter_table_test, the_offered_list_is_the_filtered_one_if_there_is_one) {
    algorithm_entry& list = server_config.algorithms[SERVER_CIPHERS];
    list.current = "all";
    list.second_current = "filtered";
    EXPECT_STREQ(offered_list(list), "filtered");
    list.second_current = nullptr;
    EXPECT_STREQ(offered_list(list), "all");
}

}  // namespace
