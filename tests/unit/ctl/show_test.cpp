#include "ssh_cfg_ctl/show.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "control_protocol/answer.h"
#include "openssh/reporter/session_facts.h"
#include "ssh_cfg_ctl/table.h"
#include "ssh_cfg_ctl/value_names.h"

namespace {

using testing::HasSubstr;

control_json answer_of(const char* record, const std::string& data) {
    std::string error;
    const auto document = control_json_parse(data, error);
    EXPECT_TRUE(document.has_value()) << error;
    return {{"result", "done"}, {"data", document.value_or(control_json())}, {"record", record}};
}

std::string shown(const char* record, const std::string& data, size_t width = 0) {
    return ctl_show_text(answer_of(record, data), width);
}

constexpr char brief[] = R"({"IncomingSessions":[
    {"SessionID":1,"NodeName":3,"SessionState":2,"UserID":"operator","HostAddress":"192.0.2.7","Version":1,
     "AuthenticationType":1,"McInfo":[
         {"ChannelID":0,"ConnectionType":1,"VTYLineNumber":4,"VTYAssigned":true},
         {"ChannelID":2,"ConnectionType":4,"VTYLineNumber":0,"VTYAssigned":false}]},
    {"SessionID":12,"NodeName":3,"SessionState":7,"UserID":"","HostAddress":"2001:db8::1","Version":1,
     "AuthenticationType":-1,"McInfo":[]},
    {"SessionID":4294967295,"NodeName":4294967295,"SessionState":-1,"UserID":"","HostAddress":"","Version":-1,
     "AuthenticationType":-1,"McInfo":[]}],"OutgoingSessions":[]})";

TEST(ctl_show_text, sessions_of_both_directions) {
    EXPECT_EQ(shown("ssh_session_brief", brief),
              "Incoming sessions\n"
              "  ID  Node  User      Host         State        Ver  Auth        Channels\n"
              "  1   3     operator  192.0.2.7    established  v2   rsa-pubkey  0 shell vty 4\n"
              "                                                                 2 sftp\n"
              "  12  3     -         2001:db8::1  7            v2   -           -\n"
              "  -   -     -         -            -            -    -           -\n"
              "\n"
              "Outgoing sessions\n"
              "  no sessions\n");
}

TEST(ctl_name_values, replaces_the_numbers_of_enumerations) {
    control_json answer = answer_of("ssh_session_brief", brief);
    ctl_name_values(answer);
    const control_json& sessions = answer["data"]["IncomingSessions"];
    EXPECT_EQ(sessions[0]["SessionState"], "established");
    EXPECT_EQ(sessions[0]["AuthenticationType"], "rsa-pubkey");
    EXPECT_EQ(sessions[0]["McInfo"][1]["ConnectionType"], "sftp");
    EXPECT_EQ(sessions[0]["SessionID"], 1);
    EXPECT_EQ(sessions[1]["SessionState"], 7) << "has no name";
    EXPECT_TRUE(sessions[1]["AuthenticationType"].is_null()) << "is unknown";
    control_json detail = answer_of("ssh_session_detail", R"({"IncomingSessions":[{"InCipher":0,"OutCipher":0}]})");
    ctl_name_values(detail);
    EXPECT_EQ(detail["data"]["IncomingSessions"][0]["InCipher"], detail["data"]["IncomingSessions"][0]["OutCipher"]);
    EXPECT_TRUE(detail["data"]["IncomingSessions"][0]["OutCipher"].is_string());
}

TEST(ctl_name_values, leaves_other_answers_alone) {
    for (control_json answer : {answer_of("other", R"({"SessionState":1})"), control_json{{"data", {1, 2}}},
                                answer_of("ssh_session_brief", "null"), control_json{{"result", "failed"}}}) {
        const control_json before = answer;
        ctl_name_values(answer);
        EXPECT_EQ(answer, before);
    }
}

constexpr char long_names[] = R"({"IncomingSessions":[
    {"SessionID":1,"NodeName":3,"SessionState":2,"UserID":"network-administrator","HostAddress":"2001:db8:1234:5678::1",
     "Version":1,"AuthenticationType":5,"McInfo":[
         {"ChannelID":0,"ConnectionType":1,"VTYLineNumber":4,"VTYAssigned":true},
         {"ChannelID":1,"ConnectionType":6,"VTYLineNumber":0,"VTYAssigned":false}]}],"OutgoingSessions":[]})";

TEST(ctl_show_text, sessions_on_a_narrow_terminal) {
    EXPECT_EQ(shown("ssh_session_brief", brief, 80), shown("ssh_session_brief", brief));
    EXPECT_EQ(shown("ssh_session_brief", long_names, 80),
              "Incoming sessions\n"
              "  ID  Node  User        Host        State        Ver  Auth       Channels\n"
              "  1   3     network-    2001:db8:   established  v2   x509-      0 shell vty 4\n"
              "            administra  1234:5678:                    ecdsa521-  1 forwarding\n"
              "            tor         :1                            pubkey\n"
              "\n"
              "Outgoing sessions\n"
              "  no sessions\n");
    EXPECT_EQ(shown("ssh_session_brief", long_names, 50),
              "Incoming sessions\n"
              "  ID:        1\n"
              "  Node:      3\n"
              "  User:      network-administrator\n"
              "  Host:      2001:db8:1234:5678::1\n"
              "  State:     established\n"
              "  Ver:       v2\n"
              "  Auth:      x509-ecdsa521-pubkey\n"
              "  Channels:  0 shell vty 4\n"
              "             1 forwarding\n"
              "\n"
              "Outgoing sessions\n"
              "  no sessions\n");
}

constexpr char detail[] = R"({"IncomingSessions":[],"OutgoingConnections":[
    {"SessionID":7,"KeyExchange":9,"PublicKey":4,"InCipher":4,"OutCipher":9,"InMAC":2,"OutMAC":-1,
     "Start_Time":"","End_Time":""},
    {"SessionID":8,"KeyExchange":77,"PublicKey":-1,"InCipher":6,"OutCipher":6,"InMAC":3,"OutMAC":3,
     "Start_Time":"","End_Time":""}]})";

TEST(ctl_show_text, algorithms_by_name_without_empty_columns) {
    EXPECT_EQ(shown("ssh_session_detail", detail),
              "Incoming sessions\n"
              "  no sessions\n"
              "\n"
              "Outgoing sessions\n"
              "  ID  Key exchange       Host key             Cipher                             MAC\n"
              "  7   curve25519-sha256  ecdsa-sha2-nistp256  in aes128-ctr                      in hmac-sha2-256\n"
              "                                              out chacha20-poly1305@openssh.com  out -\n"
              "  8   77                 -                    aes256-ctr                         hmac-sha2-512\n");
}

TEST(ctl_show_text, algorithms_on_a_narrow_terminal) {
    EXPECT_EQ(shown("ssh_session_detail", detail, 80),
              "Incoming sessions\n"
              "  no sessions\n"
              "\n"
              "Outgoing sessions\n"
              "  ID  Key exchange       Host key     Cipher             MAC\n"
              "  7   curve25519-sha256  ecdsa-sha2-  in aes128-ctr      in hmac-sha2-256\n"
              "                         nistp256     out chacha20-      out -\n"
              "                                      poly1305@openssh.\n"
              "                                      com\n"
              "  8   77                 -            aes256-ctr         hmac-sha2-512\n");
}

TEST(ctl_show_text, times_have_columns_if_a_session_has_them) {
    const std::string text = shown("sshd_kexinfo", R"([{"SessionID":1,"KexName":"k","HostKeyAlg":"","InCipher":"c",
        "OutCipher":"c","InMac":"m","OutMac":"m","Start_Time":"12:00","End_Time":""}])");
    EXPECT_EQ(text,
              "ID  Key exchange  Host key  Cipher  MAC  Start\n"
              "1   k             -         c       m    12:00\n");
}

TEST(ctl_show_text, rekeying) {
    EXPECT_EQ(shown("ssh_session_rekey", R"({"IncomingSessions":[
                  {"SessionID":1,"SessionRekeyCount":0,"TimeToRekey":"59.5","VolumeToRekey":"1023.9"},
                  {"SessionID":2,"SessionRekeyCount":3,"TimeToRekey":"","VolumeToRekey":""}],
                  "OutgoingConnections":[]})"),
              "Incoming sessions\n"
              "  ID  Rekeys  Minutes to rekey  MiB to rekey\n"
              "  1   0       59.5              1023.9\n"
              "  2   3       -                 -\n"
              "\n"
              "Outgoing sessions\n"
              "  no sessions\n");
    EXPECT_EQ(shown("sshd_rekey", R"([{"SessionID":1,"Cipher":2,"ChannelID":0,"State":2,"SessionRekeyCount":0,
                                       "NextRekeyTimeStr":"3570","DataToRekey":1073741824}])"),
              "ID  Ver  Channel  State        Rekeys  Seconds to rekey  Bytes to rekey\n"
              "1   2    0        established  0       3570              1073741824\n");
}

TEST(ctl_show_text, sessions_one_by_one) {
    EXPECT_EQ(shown("sshd_sessioninfo", R"([{"SessionID":1,"SessionPID":417,"State":2,"AuthenMethod":"key-intr",
                  "Cipher":2,"UserID":"operator","Host":"192.0.2.7","Nid":3,"McInfo":[
                      {"ChannelID":0,"ConnectionType":2,"Line":"XXXXX"},
                      {"ChannelID":1,"ConnectionType":0,"Line":"vty 0"}]}])"),
              "ID  PID  Node  User      Host       State        Ver  Auth      Channels\n"
              "1   417  3     operator  192.0.2.7  established  2    key-intr  0 command\n"
              "                                                                1 none vty 0\n");
    EXPECT_EQ(shown("sshd_sessioninfo", "[]"), "no sessions\n");
}

constexpr char parameters[] = R"json({"Version":"v2","Port":22,
    "Vrf":"vrfname:=red(v4-acl:=mgmt, v6-acl:=)  vrfname:=default(v4-acl:=, v6-acl:=)  ","Netconfport":830,
    "Netconfvrf":"","Netconfver":"1.1","Hostkeyalgo":"ssh-ed25519,rsa-sha2-512","Kexalgo":"curve25519-sha256",
    "Cipheralgo":"aes128-ctr,aes192-ctr,aes256-ctr,aes128-gcm@openssh.com,aes256-gcm@openssh.com",
    "Macalgo":"hmac-sha2-512","Backupserver":"Disabled","Trustpointhost":"","Trustpointuser":"one,two",
    "Dscp":16,"Ratelimit":60,"Sessionlimit":64,"Rekeytime":60,"Rekeyvolume":1024,"Windowscalefactor":1,
    "Passwordauthen":true,"Keyboardinteractiveauthen":true,"Pubkeyauthen":true,"Certificateauthen":false,
    "Portforwarding":"Disabled","Maxauthlimit":20,"CertificateUsername":"Common name(CN)"
})json";

TEST(ctl_show_text, server_parameters_are_a_list) {
    EXPECT_EQ(shown("ssh_server_params", parameters, 72),
              "Protocol version:                     v2\n"
              "Port:                                 22\n"
              "VRFs:                                 vrfname:=red(v4-acl:=mgmt,\n"
              "                                      v6-acl:=)\n"
              "                                      vrfname:=default(v4-acl:=,\n"
              "                                      v6-acl:=)\n"
              "NETCONF port:                         830\n"
              "NETCONF VRFs:                         -\n"
              "NETCONF version:                      1.1\n"
              "Host key algorithms:                  ssh-ed25519,rsa-sha2-512\n"
              "Key exchange algorithms:              curve25519-sha256\n"
              "Ciphers:                              aes128-ctr,aes192-ctr,aes256-ctr,\n"
              "                                      aes128-gcm@openssh.com,\n"
              "                                      aes256-gcm@openssh.com\n"
              "MACs:                                 hmac-sha2-512\n"
              "Backup server:                        Disabled\n"
              "Host trustpoint:                      -\n"
              "User trustpoints:                     one,two\n"
              "DSCP:                                 16\n"
              "Rate limit:                           60 a minute\n"
              "Session limit:                        64\n"
              "Rekey time:                           60 minutes\n"
              "Rekey volume:                         1024 MB\n"
              "Window scale factor:                  1\n"
              "Password authentication:              yes\n"
              "Keyboard-interactive authentication:  yes\n"
              "Public key authentication:            yes\n"
              "Certificate authentication:           no\n"
              "Port forwarding:                      Disabled\n"
              "Authentication attempts:              20\n"
              "User name in certificates:            Common name(CN)\n");
}

TEST(ctl_show_text, every_parameter_fits_on_a_line_of_unlimited_width) {
    const std::string text = shown("ssh_server_params", parameters);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 27);
    EXPECT_THAT(text, HasSubstr("aes192-ctr,aes256-ctr,aes128-gcm@openssh.com,aes256-gcm@openssh.com\n"));
}

TEST(ctl_show_text, the_state_published_by_telemetry) {
    EXPECT_EQ(shown("overlay_crypto_ssh_system", R"({"SshServer":{"State":{"Enable":true,"ProtocolVersion":0,
                    "Timeout":30,"RateLimit":60,"SessionLimit":null}}})"),
              "Enabled:           yes\n"
              "Protocol version:  v2\n"
              "Timeout:           30 seconds\n"
              "Rate limit:        60 a minute\n"
              "Session limit:     -\n");
}

TEST(ctl_show_text, remote_text_contains_no_control_sequences) {
    const std::string text = shown("sshd_sessioninfo", R"([{"SessionID":1,"UserID":"\u001b]0;mine\u0007",
        "Host":"a\r\nb\u009b2J\u202egnp","AuthenMethod":"\u0000","McInfo":[{"Line":"\u001b[1m\t"}]}])");
    for (const char byte : text) {
        EXPECT_TRUE(static_cast<unsigned char>(byte) >= 0x20 || byte == '\n');
    }
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
    EXPECT_THAT(text, HasSubstr("\\x1b]0;mine\\x07"));
    EXPECT_THAT(text, HasSubstr("a\\x0d\\x0ab\\xc2\\x9b2J\\xe2\\x80\\xaegnp"));
}

TEST(ctl_show_text, unexpected_records_are_shown_nevertheless) {
    for (const char* record : {"ssh_session_brief", "ssh_session_detail", "ssh_session_rekey", "sshd_sessioninfo",
                               "sshd_kexinfo", "sshd_rekey", "ssh_server_params", "overlay_crypto_ssh_system"}) {
        for (const char* data : {"null", "7", "[]", "{}", "[1,[]]", R"([{"McInfo":7}])", R"([{"McInfo":[7,{}]}])",
                                 R"({"IncomingSessions":7,"OutgoingSessions":[[]]})", R"({"SshServer":{"State":3}})",
                                 R"([{"SessionID":{"a":1}}])", R"([{"SessionID":1.5,"State":1e300}])"}) {
            EXPECT_THAT(shown(record, data, 40), testing::EndsWith("\n")) << record << ' ' << data;
        }
    }
}

TEST(ctl_show_text, other_records_are_shown_by_their_fields) {
    EXPECT_EQ(shown("some_record", R"([{"SessionID":1,"UserID":"a"}])"), "SessionID  UserID\n1          a\n");
    EXPECT_EQ(ctl_show_text({{"data", {{"a", 1}}}}, 0), "a: 1\n");
}

TEST(ctl_show_text, fits_every_terminal) {
    const std::pair<const char*, const char*> records[] = {{"ssh_session_brief", brief},
                                                           {"ssh_session_brief", long_names},
                                                           {"ssh_session_detail", detail},
                                                           {"ssh_server_params", parameters}};
    for (const auto& [record, data] : records) {
        for (size_t width = 50; width < 200; width++) {
            std::istringstream lines(shown(record, data, width));
            for (std::string line; std::getline(lines, line);) {
                EXPECT_LE(ctl_text_width(line), width) << record;
            }
        }
    }
}

TEST(ctl_explain_sessions, reports_that_there_are_no_sessions) {
    for (const char* path : {"/oper/crypto-ssh/gl/session_xml/brief", "/oper/crypto-ssh/gl/sshddata/detail/",
                             "/oper/crypto-ssh/client/rekey"}) {
        control_json answer = control_answer(control_result::no_data, "no data");
        ctl_explain_sessions({{"call", "show"}, {"path", path}}, answer);
        EXPECT_EQ(answer["message"], path + std::string(": no sessions"));
    }
}

namespace explained {

constexpr char xml_brief[] = "/oper/crypto-ssh/gl/session_xml/brief";

control_json parsed_json(const char* text) {
    std::string error;
    return control_json_parse(text, error).value_or(control_json());
}

/// The answer to a request for sessions. `sessions` is the JSON text of their number, "null" if it is unknown.
control_json answer_with(const char* path, const char* sessions, const char* data = nullptr,
                         const char* record = "ssh_session_brief") {
    control_json answer = control_answer(data == nullptr ? control_result::no_data : control_result::done);
    answer["sessions"] = parsed_json(sessions);
    if (data != nullptr) {
        answer["data"] = parsed_json(data);
        answer["record"] = record;
    }
    ctl_explain_sessions({{"call", "show"}, {"path", path}}, answer);
    return answer;
}

std::string message(const char* path, const char* sessions) {
    return answer_with(path, sessions).value("message", "");
}

std::string warnings(const char* path, const char* sessions, const char* data, const char* record) {
    return control_json_text(answer_with(path, sessions, data, record).value("warnings", control_json::array()));
}

}  // namespace explained

TEST(ctl_explain_sessions, no_sessions_are_reported_only_if_there_are_none) {
    using explained::message;
    const std::string path = std::string(explained::xml_brief) + ": ";
    EXPECT_EQ(message(explained::xml_brief, R"({"incoming":0,"outgoing":0})"), path + "no sessions");
    EXPECT_EQ(message(explained::xml_brief, R"({"incoming":0,"outgoing":1})"), path + "1 session did not answer");
    EXPECT_EQ(message(explained::xml_brief, R"({"incoming":2,"outgoing":1})"), path + "3 sessions did not answer");
    EXPECT_EQ(message(explained::xml_brief, "null"),
              path + "the session responder does not answer, so sessions may be missing");
    const char* servers = "/oper/crypto-ssh/gl/sshddata/brief";
    EXPECT_EQ(message(servers, R"({"incoming":0,"outgoing":5})"), servers + std::string(": no sessions"));
    const char* clients = "/oper/crypto-ssh/client/brief";
    EXPECT_EQ(message(clients, R"({"incoming":5,"outgoing":0})"), clients + std::string(": no sessions"));
    EXPECT_FALSE(explained::answer_with(clients, "null").contains("sessions"));
}

TEST(ctl_explain_sessions, warns_of_those_that_did_not_answer) {
    using explained::warnings;
    const char* one_each = R"({"IncomingSessions":[{"SessionID":1}],"OutgoingSessions":[{"SessionID":2}]})";
    const char* brief_record = "ssh_session_brief";
    const auto of_both = [&](const char* sessions, const char* data) {
        return warnings(explained::xml_brief, sessions, data, brief_record);
    };
    EXPECT_EQ(of_both(R"({"incoming":1,"outgoing":1})", one_each), "[]");
    EXPECT_EQ(of_both(R"({"incoming":0,"outgoing":0})", one_each), "[]") << "they ended in the meantime";
    EXPECT_EQ(of_both(R"({"incoming":2,"outgoing":3})", one_each), R"(["3 sessions did not answer"])");
    EXPECT_EQ(of_both("null", one_each), R"(["the session responder does not answer, so sessions may be missing"])");
    EXPECT_EQ(of_both(R"({"incoming":2,"outgoing":0})",
                      R"({"IncomingSessions":[{"SessionID":1},{"SessionID":4294967295}],"OutgoingSessions":null})"),
              R"(["1 session did not answer"])")
        << "an element without an id stands for one that did not";
    const char* detail_lists = R"({"IncomingSessions":[],"OutgoingConnections":[{"SessionID":2}]})";
    EXPECT_EQ(warnings("/oper/crypto-ssh/gl/session_xml/detail", R"({"incoming":0,"outgoing":2})", detail_lists,
                       "ssh_session_detail"),
              R"(["1 session did not answer"])");
    const char* list = R"([{"SessionID":1},{"SessionID":2}])";
    EXPECT_EQ(
        warnings("/oper/crypto-ssh/gl/sshddata/brief", R"({"incoming":4,"outgoing":9})", list, "sshd_sessioninfo"),
        R"(["2 sessions did not answer"])");
    EXPECT_EQ(warnings("/oper/crypto-ssh/client/brief", R"({"incoming":4,"outgoing":2})", list, "sshd_sessioninfo"),
              "[]");
}

TEST(ctl_explain_sessions, a_direction_without_records_is_not_without_sessions) {
    const control_json answer = explained::answer_with(explained::xml_brief, R"({"incoming":2,"outgoing":0})",
                                                       R"({"IncomingSessions":[],"OutgoingSessions":[]})");
    EXPECT_EQ(ctl_show_text(answer, 0),
              "Incoming sessions\n"
              "  2 sessions did not answer\n"
              "\n"
              "Outgoing sessions\n"
              "  no sessions\n");
}

TEST(ctl_explain_sessions, only_for_sessions) {
    const auto message = [](const char* call, const char* path, control_result result) {
        control_json answer = control_answer(result, "as it was");
        ctl_explain_sessions({{"call", call}, {"path", path}}, answer);
        return answer.value("message", "");
    };
    constexpr char sessions[] = "/oper/crypto-ssh/gl/session_xml/brief";
    EXPECT_EQ(message("show", "/oper/crypto-ssh/gl/session_xml/history", control_result::no_data), "as it was");
    EXPECT_EQ(message("show", "/oper/crypto-ssh/gl/session_xml/", control_result::no_data), "as it was");
    EXPECT_EQ(message("show", "/oper/nowhere/brief", control_result::no_data), "as it was");
    EXPECT_EQ(message("show", "", control_result::no_data), "as it was");
    EXPECT_EQ(message("get", sessions, control_result::no_data), "as it was");
    EXPECT_EQ(message("show", sessions, control_result::failed), "as it was");
}

TEST(ctl_value_name, covers_the_values_that_the_responder_reports) {
    EXPECT_STREQ(ctl_value_name("states_en", openssh::session_negotiating), "negotiating");
    EXPECT_STREQ(ctl_value_name("states_en", openssh::session_authenticating), "authenticating");
    EXPECT_STREQ(ctl_value_name("states_en", openssh::session_established), "established");
    EXPECT_STREQ(ctl_value_name("connection_type_en", openssh::connection_none), "none");
    EXPECT_STREQ(ctl_value_name("connection_type_en", openssh::connection_shell), "shell");
    EXPECT_STREQ(ctl_value_name("connection_type_en", openssh::connection_command), "command");
    EXPECT_STREQ(ctl_value_name("connection_type_en", openssh::connection_subsystem), "subsystem");
    EXPECT_STREQ(ctl_value_name("connection_type_en", openssh::connection_sftp), "sftp");
    EXPECT_STREQ(ctl_value_name("connection_type_en", openssh::connection_netconf), "netconf");
    EXPECT_STREQ(ctl_value_name("connection_type_en", openssh::connection_forwarding), "forwarding");
}

}  // namespace
