#include "config_files/parameter_table.h"

#include <gtest/gtest.h>

#include <string>

#include "../agent_test.h"
#include "config_files/vrf_node.h"

namespace {

using parameter_table_test = agent_test;

constexpr char mac_list[] = "hmac-sha2-512,hmac-sha2-256,hmac-sha1";
constexpr char cipher_list[] =
    "aes128-ctr,aes192-ctr,aes256-ctr,aes128-gcm@openssh.com,aes256-gcm@openssh.com,chacha20-poly1305@openssh.com";
constexpr char kex_list[] =
    "ecdh-sha2-nistp521,ecdh-sha2-nistp384,ecdh-sha2-nistp256,diffie-hellman-group14-sha1,curve25519-sha256,"
    "diffie-hellman-group14-sha256,diffie-hellman-group16-sha512,curve25519-sha256@libssh.org";
constexpr char client_host_key_list[] =
    "ecdsa-sha2-nistp256,ecdsa-sha2-nistp384,ecdsa-sha2-nistp521,ssh-ed25519,rsa-sha2-512,rsa-sha2-256,ssh-rsa,ssh-dss";
constexpr char server_host_key_list[] =
    "x509v3-ssh-rsa,ecdsa-sha2-nistp256,ecdsa-sha2-nistp384,ecdsa-sha2-nistp521,ssh-ed25519,rsa-sha2-512,rsa-sha2-256,"
    "ssh-rsa,ssh-dss";

struct expected_entry {
    const char* keyword;
    const char* default_text;
    const char* current;
};

constexpr const char* none = nullptr;

const expected_entry server_entries[] = {
    {"startconfig", none, none},
    {"Protocol", "2,1", none},
    {"UsePAM", "yes", "yes"},
    {"Port", "22", none},
    {"MACs", mac_list, mac_list},
    {"MaxAuthTries", "20", "20"},
    {"RekeyLimit", "1024M 60m", "1024M 60m"},
    {"MaxSessions", "16", "16"},
    {"IPQoS", "0x10", "0x10"},
    {"PermitRootLogin", "yes", "yes"},
    {"NorvoSSHFipsMode", "", none},
    {"LogLevel", "", none},
    {"Port", "830", none},
    {"WindowScaleQd", "1", none},
    {"Subsystem", "sftp /pkg/bin/sftp-server", "sftp /pkg/bin/sftp-server"},
    {"RateLimitQd", "60", "60"},
    {"SessionLimitQd", "64", "64"},
    {"Banner", "/var/opt/norvo/norvossh/banner", none},
    {"AcceptedAlgorithms",
     "x509v3-ssh-rsa,x509v3-ecdsa-sha2-nistp256,x509v3-ecdsa-sha2-nistp384,x509v3-ecdsa-sha2-nistp521,x509v3-ssh-dss,"
     "ssh-rsa",
     "x509v3-ssh-rsa,x509v3-ecdsa-sha2-nistp256,x509v3-ecdsa-sha2-nistp384,x509v3-ecdsa-sha2-nistp521,x509v3-ssh-dss,"
     "ssh-rsa"},
    {"LoginGraceTime", "30", "30"},
    {"ClientAliveInterval", "60", "60"},
    {"AllowTcpForwarding", "no", "no"},
    {"HostTrustpointQd", "", none},
    {"UserTrustpointQd", "", none},
    {"UserTrustpointCntQd", "0", none},
    {"CertUsernameQd", "1", none},
    {"endconfig", none, none},
};

const expected_entry server_lists[] = {
    {"startalgoconfig", none, none},
    {"HostKeyAlgorithms", server_host_key_list, server_host_key_list},
    {"HostKey ",
     "/pkg/ecdsa-sha2-nistp256,/pkg/ecdsa-sha2-nistp384,/pkg/ecdsa-sha2-nistp521,/pkg/ed25519,/pkg/rsa,/pkg/dsa",
     "/pkg/ecdsa-sha2-nistp256,/pkg/ecdsa-sha2-nistp384,/pkg/ecdsa-sha2-nistp521,/pkg/ed25519,/pkg/rsa,/pkg/dsa"},
    {"Ciphers", cipher_list, cipher_list},
    {"KexAlgorithms", kex_list, kex_list},
    {"endalgoconfig", none, none},
};

const expected_entry client_entries[] = {
    {"Protocol", "2,1", none},
    {"MACs", mac_list, mac_list},
    {"RekeyLimit", "1024M 60m", "1024M 60m"},
    {"IPQoS", "0x10", "0x10"},
    {"WindowScaleQd", none, none},
    {"UserKnownHostsFile", "/dev/null", "/dev/null"},
    {"LogLevel", "", none},
    {"StrictHostKeyChecking", "no", "no"},
    {"ServerAliveInterval", "60", "60"},
    {"PubkeyAuthentication", "no", "no"},
};

const expected_entry client_lists[] = {
    {"Ciphers", cipher_list, cipher_list},
    {"KexAlgorithms", kex_list, kex_list},
    {"HostKeyAlgorithms", client_host_key_list, client_host_key_list},
};

template <typename Entry>
void expect_entry(const Entry& entry, const expected_entry& expected) {
    EXPECT_STREQ(entry.keyword, expected.keyword);
    EXPECT_STREQ(entry.default_text, expected.default_text) << expected.keyword;
    EXPECT_STREQ(entry.current, expected.current) << expected.keyword;
}

TEST_F(parameter_table_test, the_servers_settings) {
    ASSERT_EQ(std::size(server_entries), size_t{server_parameter_count});
    for (size_t i = 0; i < server_parameter_count; i++) {
        expect_entry(server_config.parameters[i], server_entries[i]);
        const bool marker = i == SERVER_START_MARKER || i == SERVER_END_MARKER;
        EXPECT_EQ(server_config.parameters[i].allvrf, marker ? 0u : 1u);
    }
}

TEST_F(parameter_table_test, the_servers_lists) {
    ASSERT_EQ(std::size(server_lists), size_t{server_algorithm_count});
    for (size_t i = 0; i < server_algorithm_count; i++) {
        expect_entry(server_config.algorithms[i], server_lists[i]);
        EXPECT_STREQ(server_config.algorithms[i].second_current, server_lists[i].current);
        const bool marker = i == SERVER_ALGORITHM_START_MARKER || i == SERVER_ALGORITHM_END_MARKER;
        EXPECT_EQ(server_config.algorithms[i].allvrf, marker ? 0u : 1u);
    }
}

TEST_F(parameter_table_test, the_clients_settings_and_lists) {
    ASSERT_EQ(std::size(client_entries), size_t{client_parameter_count});
    for (size_t i = 0; i < client_parameter_count; i++) {
        expect_entry(client_config.parameters[i], client_entries[i]);
    }
    ASSERT_EQ(std::size(client_lists), size_t{client_algorithm_count});
    for (size_t i = 0; i < client_algorithm_count; i++) {
        expect_entry(client_config.algorithms[i], client_lists[i]);
        EXPECT_STREQ(client_config.algorithms[i].second_current, client_lists[i].current);
    }
}

TEST_F(parameter_table_test, texts_edited_by_appliers) {
    EXPECT_STREQ(server_config.cipher_base, cipher_list);
    EXPECT_STREQ(server_config.algorithms[SERVER_CIPHERS].text, cipher_list);
    EXPECT_STREQ(server_config.parameters[SERVER_MACS].text, mac_list);
    EXPECT_STREQ(server_config.parameters[SERVER_IP_QOS].text, "0x10");
    EXPECT_STREQ(server_config.parameters[SERVER_HOST_TRUSTPOINT].text, "");
    EXPECT_STREQ(client_config.cipher_base, cipher_list);
    EXPECT_STREQ(client_config.algorithms[CLIENT_CIPHERS].text, cipher_list);
    EXPECT_STREQ(client_config.parameters[CLIENT_MACS].text, mac_list);
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
    EXPECT_STREQ(server_config.algorithms[SERVER_CIPHERS].current, cipher_list);
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

}  // namespace
