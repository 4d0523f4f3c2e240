#include "oper/server_params.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "../agent_test.h"
#include "call_faults.h"
#include "config_files/algorithm_names.h"
#include "core/debug.h"
#include "core/text.h"
#include "oper/providers.h"
#include "oper/record_schemas.h"
#include "platform/record_codec.h"
#include "vrf/node_registry.h"

namespace {

class server_params_test : public agent_test {
  protected:
    ~server_params_test() override { forget_vrf_nodes(); }

    static ssh_server_params filled() {
        ssh_server_params params;
        fill_server_params(&params);
        return params;
    }
};

}  // namespace

TEST_F(server_params_test, unconfigured_settings_have_their_defaults) {
    const ssh_server_params params = filled();
    EXPECT_STREQ(params.Version, "v2");
    EXPECT_EQ(params.Port, 22U);
    EXPECT_STREQ(params.Vrf, "");
    EXPECT_EQ(params.Netconfport, 830U);
    EXPECT_STREQ(params.Netconfvrf, "");
    EXPECT_STREQ(params.Netconfver, "1.1");
    EXPECT_STREQ(params.Macalgo, default_mac_list);
    EXPECT_STREQ(params.Backupserver, "Disabled");
    EXPECT_EQ(params.Dscp, 16U);
    EXPECT_EQ(params.Ratelimit, 60U);
    EXPECT_EQ(params.Sessionlimit, 64U);
    EXPECT_EQ(params.Rekeytime, 60U);
    EXPECT_EQ(params.Rekeyvolume, 1024U);
    EXPECT_EQ(params.Windowscalefactor, 1U);
    EXPECT_EQ(params.Maxauthlimit, 20U);
    EXPECT_EQ(params.Passwordauthen + params.Keyboardinteractiveauthen + params.Pubkeyauthen + params.Certificateauthen,
              4U);
    EXPECT_STREQ(params.Portforwarding, "Disabled");
    EXPECT_STREQ(params.CertificateUsername, "Common name(CN)");
}

TEST_F(server_params_test, vrfs_come_last_node_first) {
    vrf_node* first = create_vrf_node("a");
    create_vrf_node("b");
    copy_text(first->ssh_v4_acl, acl_name_size, "four");
    copy_text(first->netconf_v6_acl, acl_name_size, "six");
    first->lines[VRF_NETCONF_SUBSYSTEM].current = "/pkg/bin/netconf_sshd_proxy -i 0 -o 1";
    const ssh_server_params params = filled();
    EXPECT_STREQ(params.Vrf, "vrfname:=a(v4-acl:=four, v6-acl:=)  vrfname:=b(v4-acl:=, v6-acl:=)  ");
    EXPECT_STREQ(params.Netconfvrf, "vrfname:=a(v4-acl:=, v6-acl:=six)  ");
}

TEST_F(server_params_test, the_joined_text_is_truncated) {
    for (int i = 0; i < 100; i++) {
        create_vrf_node(("vrf" + std::to_string(i)).c_str());
    }
    EXPECT_EQ(std::string(filled().Vrf).size(), 1999U);
}

TEST_F(server_params_test, a_dscp_text_is_parsed_as_hexadecimal) {
    server_config.parameters[SERVER_IP_QOS].current = "10";
    EXPECT_EQ(filled().Dscp, 16U);
}

TEST_F(server_params_test, other_values_are_shown_as_text) {
    server_config.parameters[SERVER_ALLOW_TCP_FORWARDING].current = "local";
    server_config.parameters[SERVER_CERTIFICATE_USERNAME].current = "2";
    EXPECT_STREQ(filled().Portforwarding, "local");
    EXPECT_STREQ(filled().CertificateUsername, "User principle name(UPN)");
    server_config.parameters[SERVER_ALLOW_TCP_FORWARDING].current = "yes";
    server_config.parameters[SERVER_CERTIFICATE_USERNAME].current = "3";
    EXPECT_STREQ(filled().Portforwarding, "Invalid");
    EXPECT_STREQ(filled().CertificateUsername, "Common name(CN) User principle name(UPN)");
}

TEST_F(server_params_test, a_list_that_is_too_long_is_truncated) {
    const std::string list(300, 'k');
    server_config.algorithms[SERVER_KEX_ALGORITHMS].current = list.c_str();
    EXPECT_EQ(std::string(filled().Kexalgo), std::string(229, 'k'));
}

TEST_F(server_params_test, every_text_is_truncated_to_its_field) {
    const std::string list(3000, 'k');
    for (auto& parameter : server_config.parameters) {
        parameter.current = list.c_str();
    }
    for (auto& algorithm : server_config.algorithms) {
        algorithm.current = list.c_str();
    }
    const ssh_server_params params = filled();
    for (const auto* text : {&params.Hostkeyalgo, &params.Kexalgo, &params.Cipheralgo, &params.Macalgo}) {
        EXPECT_EQ(std::string(*text), std::string(229, 'k'));
    }
    EXPECT_EQ(std::string(params.Trustpointhost), std::string(127, 'k'));
}

TEST_F(server_params_test, a_rekey_limit_has_a_volume_and_a_time) {
    server_config.parameters[SERVER_REKEY_LIMIT].current = "2048M 90m";
    EXPECT_EQ(filled().Rekeyvolume, 2048U);
    EXPECT_EQ(filled().Rekeytime, 90U);
    server_config.parameters[SERVER_REKEY_LIMIT].current = "default";
    EXPECT_EQ(filled().Rekeyvolume, 0U);
    EXPECT_EQ(filled().Rekeytime, 0U);
}

TEST_F(server_params_test, configured_values_replace_the_defaults) {
    server_config.parameters[SERVER_RATE_LIMIT].current = "600";
    server_config.parameters[SERVER_SESSION_LIMIT].current = "16";
    server_config.parameters[SERVER_WINDOW_SCALE].current = "7";
    server_config.parameters[SERVER_MAX_AUTH_TRIES].current = "4";
    server_config.parameters[SERVER_MACS].current = "hmac-sha2-512";
    server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS].current = "ssh-ed25519";
    server_config.algorithms[SERVER_CIPHERS].current = "aes256-ctr";
    const ssh_server_params params = filled();
    EXPECT_EQ(params.Ratelimit, 600U);
    EXPECT_EQ(params.Sessionlimit, 16U);
    EXPECT_EQ(params.Windowscalefactor, 7U);
    EXPECT_EQ(params.Maxauthlimit, 4U);
    EXPECT_STREQ(params.Macalgo, "hmac-sha2-512");
    EXPECT_STREQ(params.Hostkeyalgo, "ssh-ed25519");
    EXPECT_STREQ(params.Cipheralgo, "aes256-ctr");
}

TEST_F(server_params_test, an_empty_netconf_entry_does_not_count) {
    vrf_node* node = create_vrf_node("a");
    node->lines[VRF_NETCONF_SUBSYSTEM].current = "";
    EXPECT_STREQ(filled().Netconfvrf, "");
    node->lines[VRF_NETCONF_SUBSYSTEM].current = nullptr;
    EXPECT_STREQ(filled().Netconfvrf, "");
}

TEST_F(server_params_test, the_longest_names_fit) {
    vrf_node* node = create_vrf_node(std::string(32, 'v').c_str());
    node->lines[VRF_NETCONF_SUBSYSTEM].current = "/pkg/bin/netconf_sshd_proxy -i 0 -o 1";
    const std::string name(64, 'n');
    for (char* acl : {node->ssh_v4_acl, node->ssh_v6_acl, node->netconf_v4_acl, node->netconf_v6_acl}) {
        copy_text(acl, acl_name_size, name.c_str());
    }
    const std::string expected = "vrfname:=" + std::string(32, 'v') + "(v4-acl:=" + name + ", v6-acl:=" + name + ")  ";
    EXPECT_EQ(filled().Vrf, expected);
    EXPECT_EQ(filled().Netconfvrf, expected);
}

TEST_F(server_params_test, each_setting_is_printed_in_debug) {
    vrf_node* node = create_vrf_node("a");
    copy_text(node->ssh_v4_acl, acl_name_size, "four");
    node->lines[VRF_NETCONF_SUBSYSTEM].current = "/pkg/bin/netconf_sshd_proxy -i 0 -o 1";
    server_config.algorithms[SERVER_KEX_ALGORITHMS].current = "curve25519-sha256";
    server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS].current = "ssh-ed25519";
    server_config.algorithms[SERVER_CIPHERS].current = "aes256-ctr";
    server_config.parameters[SERVER_MACS].current = "hmac-sha2-512";
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    fake_platform::clear_reports();
    filled();
    EXPECT_THAT(
        fake_platform::debug_texts(),
        testing::UnorderedElementsAre("version:=v2", "Kexalgo_list:=curve25519-sha256", "HostkeyAlgo_list:=ssh-ed25519",
                                      "ciphers:=aes256-ctr", "hmacalgo:=hmac-sha2-512", "ratelimit:=60", "DSCP:=0x10",
                                      "sessionlimit:=64", "rekeyVal:=1024M 60m", "windowScale:=1",
                                      "Max auth limit = 20", "Certificate username = 1", "ssh protocol config present",
                                      "ssh vrf-name:=a, v4-acl:=four, v6-acl:=", "netconf protocol config present"));
}

TEST_F(server_params_test, a_read_returns_one_record) {
    EXPECT_EQ(sshd_params_edm_init(), PLATFORM_OK);
    create_vrf_node("a");
    const fake_platform::answer answer = fake_platform::read("/oper/crypto-ssh/gl/server-params");
    EXPECT_EQ(answer.status, PLATFORM_OK);
    ASSERT_EQ(answer.records.size(), 1U);
    const std::string& bytes = answer.records[0].bytes;
    ssh_server_params params = {};
    EXPECT_EQ(record_decode(ssh_server_params_descriptor(), bytes.data(), bytes.size(), &params, sizeof params),
              PLATFORM_OK);
    EXPECT_STREQ(params.Vrf, "vrfname:=a(v4-acl:=, v6-acl:=)  ");
    EXPECT_STREQ(params.CertificateUsername, filled().CertificateUsername);
}

TEST_F(server_params_test, an_encoding_failure_is_logged) {
    EXPECT_EQ(sshd_params_edm_init(), PLATFORM_OK);
    call_faults::fail_call("record_encode", EIO);
    EXPECT_EQ(fake_platform::read("/oper/crypto-ssh/gl/server-params").status,
              platform_status{DATASTORE_NOTHING_TO_ENCODE});
    EXPECT_THAT(fake_platform::log_texts(),
                testing::ElementsAre("ERR_BAG_ENCODE: Error:=Input/output error(0x5), Location:=ssh server parameters, "
                                     "bag encode failed"));
}
