#include "unit/linux/control/calls_support.h"

namespace {

using testing::ElementsAre;

class control_help_call_test : public control_test::calls_test {
  protected:
    control_json help(const std::string& text) {
        return ask(R"({"call":"help","path":")" + text + "\"}").value("data", control_json::array());
    }
    std::vector<std::string> short_paths(const std::string& text) {
        std::vector<std::string> paths;
        for (const control_json& item : help(text)) {
            paths.push_back(item.value("short_path", item.value("path", "")));
        }
        return paths;
    }
};

TEST_F(control_help_call_test, an_item_is_described_with_its_current_value) {
    const std::string before =
        R"([{"path":"/cfg/gl/crypto/ssh/server/cmn/timeout","short_path":"timeout","meaning":"Login grace time",)"
        R"("type":"number","value":"a number from 5 to 120","lowest":5,"highest":120,"unit":"seconds","default":"30",)"
        R"("current":)";
    const std::string after = R"(,"example":"ssh_cfg_ctl set timeout 45"}])";
    EXPECT_EQ(control_json_text(help("timeout")), before + "null" + after);
    ask(R"({"call":"set","path":"timeout","value":50})");
    EXPECT_EQ(control_json_text(help("/cfg/gl/crypto/ssh/server/cmn/timeout")), before + "50" + after);
}

TEST_F(control_help_call_test, a_path_with_a_name_has_a_value_of_its_own) {
    ask(R"({"call":"set","path":"vrf/blue"})");
    const control_json blue = help("vrf/blue")[0];
    EXPECT_EQ(control_json_text(blue["current"]), "[null,null,null]");
    EXPECT_EQ(blue["example"], R"(ssh_cfg_ctl set vrf/blue '{"ipv4_acl": "ssh_access"}')");
    EXPECT_EQ(blue["fields"].size(), 3U);
    EXPECT_EQ(blue["fields"][1]["name"], "ipv4_acl");
    EXPECT_TRUE(blue.contains("name"));
    const control_json any = help("vrf/NAME")[0];
    EXPECT_EQ(any["path"], "/cfg/gl/crypto/ssh/server/sshd/vrf/NAME");
    EXPECT_FALSE(any.contains("current"));
}

TEST_F(control_help_call_test, a_folder_and_an_ambiguous_end_have_several_items) {
    EXPECT_THAT(short_paths("dscp"), ElementsAre("client/dscp", "cmn/dscp"));
    EXPECT_THAT(short_paths("sshd"), ElementsAre("netconf", "sshd/v2", "vrf-netconf/NAME", "vrf/NAME"));
    EXPECT_EQ(help("/").size(), schema_rows().size());
}

TEST_F(control_help_call_test, words_are_found_in_paths_and_descriptions) {
    EXPECT_THAT(short_paths("grace time"), ElementsAre("timeout"));
    EXPECT_THAT(short_paths("keystr"), ElementsAre("username/NAME/keystr"));
    EXPECT_THAT(short_paths("client rekey"), ElementsAre("client/rekey_time", "client/rekey_volume"));
    EXPECT_EQ(result(R"({"call":"help","path":"no such words"})"), "no_data");
    EXPECT_EQ(message(R"({"call":"help","path":"nonsense\n"})"),
              "nonsense\\x0a: neither a path nor a word of a description");
}

TEST_F(control_help_call_test, operational_data_is_explained) {
    EXPECT_EQ(control_json_text(help("session_xml/brief")),
              R"([{"path":"/oper/crypto-ssh/gl/session_xml/brief",)"
              R"("meaning":"sessions of servers and clients: users, hosts and channels",)"
              R"("example":"ssh_cfg_ctl show /oper/crypto-ssh/gl/session_xml/brief"}])");
    EXPECT_EQ(help("/oper/crypto-ssh/gl/").size(), 7U);
    EXPECT_EQ(help("brief").size(), 3U);
}

TEST_F(control_help_call_test, what_is_not_carried_out_is_said) {
    EXPECT_EQ(help("trustpoint/host")[0]["not_carried_out"], "OpenSSH does not support x509v3 certificates");
    EXPECT_FALSE(help("timeout")[0].contains("not_carried_out"));
    EXPECT_EQ(result(R"({"call":"help"})"), "usage");
}

}  // namespace
