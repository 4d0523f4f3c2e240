#include "oper/server_params.h"

#include "../agent_test.h"
#include "core/text.h"
#include "vrf/node_registry.h"

namespace {

class server_params_test : public agent_test {
  protected:
    ~server_params_test() override {
        while (server.nodes != nullptr) {
            delete_vrf_node(server.nodes);
        }
    }

    static ssh_server_params filled() {
        ssh_server_params params;
        fill_server_params(&params);
        return params;
    }
};

}  // namespace

TEST_F(server_params_test, defaults_stand_where_nothing_is_configured) {
    const ssh_server_params params = filled();
    EXPECT_STREQ(params.Version, "v2");
    EXPECT_EQ(params.Port, 22U);
    EXPECT_STREQ(params.Vrf, "");
    EXPECT_EQ(params.Netconfport, 830U);
    EXPECT_STREQ(params.Netconfvrf, "");
    EXPECT_STREQ(params.Netconfver, "1.1");
    EXPECT_STREQ(params.Macalgo, "hmac-sha2-512,hmac-sha2-256,hmac-sha1");
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

TEST_F(server_params_test, the_joined_text_is_cut_at_its_bound) {
    for (int i = 0; i < 100; i++) {
        create_vrf_node(("vrf" + std::to_string(i)).c_str());
    }
    EXPECT_EQ(std::string(filled().Vrf).size(), 1999U);
}

TEST_F(server_params_test, a_dscp_text_is_read_as_hexadecimal) {
    server.parameters[SERVER_IP_QOS].current = "10";
    EXPECT_EQ(filled().Dscp, 16U);
}

TEST_F(server_params_test, other_values_have_their_words) {
    server.parameters[SERVER_ALLOW_TCP_FORWARDING].current = "local";
    server.parameters[SERVER_CERTIFICATE_USERNAME].current = "2";
    EXPECT_STREQ(filled().Portforwarding, "local");
    EXPECT_STREQ(filled().CertificateUsername, "User principle name(UPN)");
    server.parameters[SERVER_ALLOW_TCP_FORWARDING].current = "yes";
    server.parameters[SERVER_CERTIFICATE_USERNAME].current = "3";
    EXPECT_STREQ(filled().Portforwarding, "Invalid");
    EXPECT_STREQ(filled().CertificateUsername, "Common name(CN) User principle name(UPN)");
}

TEST_F(server_params_test, a_list_that_is_too_long_is_cut) {
    const std::string list(300, 'k');
    server.algorithms[SERVER_KEX_ALGORITHMS].current = list.c_str();
    EXPECT_EQ(std::string(filled().Kexalgo), std::string(229, 'k'));
}
