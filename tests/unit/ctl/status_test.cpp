#include "ssh_cfg_ctl/status.h"

#include <gmock/gmock.h>

namespace {

std::string text(const std::string& json, size_t width = 0) {
    std::string error;
    const auto status = control_json_parse(json, error);
    EXPECT_TRUE(status.has_value()) << error;
    return ctl_status_text(status.value_or(control_json()), width);
}

constexpr char sound_vrf[] =
    R"({"name":"default","id":1,"services":["ssh","netconf"],"namespace":true,)"
    R"("unit":{"active":"active","sub":"running"},"ports":[22,830],"file":{"in_use":"current"},)"
    R"("access_lists":[{"name":"a","state":"loaded"},{"name":"b","state":"loaded"}],"blocked":false,"closed":[]})";

constexpr char broken_vrf[] =
    R"({"name":"red","id":null,"services":["ssh"],"namespace":false,)"
    R"("unit":{"active":"activating","sub":"auto-restart"},"ports":[],"file":{"in_use":"last_good"},)"
    R"("access_lists":[{"name":"a","state":"not_loaded"},{"name":"b","state":"loaded"}],"blocked":false,)"
    R"("closed":["ssh ipv4"]})";

TEST(ctl_status, has_one_line_for_each_vrf) {
    EXPECT_EQ(text(std::string(R"({"pid":5,"role":"primary","vrfs":[)") + sound_vrf +
                   R"(],"not_in_force":[],"problems":[],"not_carried_out":[]})"),
              "pid:  5\n"
              "role: primary\n"
              "\n"
              "VRF      Services     Namespace  Server   Ports   File     Access lists  Blocked\n"
              "default  ssh netconf  present    running  22 830  current  2 loaded      no\n");
}

TEST(ctl_status, shows_that_a_server_has_local_directives) {
    const auto file_of = [](const std::string& in_use) {
        const std::string table = text(
            R"({"pid":5,"vrfs":[{"name":"red","file":{"in_use":"current","local":{"in_use":")" + in_use + R"("}}}]})");
        return table.find("current + local") != std::string::npos;
    };
    EXPECT_TRUE(file_of("current"));
    EXPECT_TRUE(file_of("last_accepted"));
    EXPECT_FALSE(file_of("none"));
    EXPECT_FALSE(file_of("left_out"));
}

TEST(ctl_status, fits_the_usual_terminal_when_nothing_is_wrong) {
    const std::string json = std::string(R"({"pid":5,"vrfs":[)") + sound_vrf + "]}";
    EXPECT_EQ(text(json, 80), text(json));
}

TEST(ctl_status, says_what_the_agent_is_doing) {
    EXPECT_EQ(text(R"({"pid":5,"in_progress":{"work":"restarting servers","done":64,"total":256}})"),
              "pid: 5\n\nIn progress: 64 of 256: restarting servers\n");
    EXPECT_EQ(text(R"({"pid":5,"in_progress":null})"), "pid: 5\n");
}

TEST(ctl_status, names_the_commit_that_awaits_its_confirmation) {
    EXPECT_EQ(text(R"({"pid":5,"confirmation_awaited":{"commit":7,"user":"alice","note":"new algorithms\u001b",)"
                   R"("until":"2026-01-31T12:05:00Z"}})"),
              "pid: 5\n\nAwaiting confirmation: commit 7 by alice (new algorithms\\x1b), undone at "
              "2026-01-31T12:05:00Z unless confirmed\n");
    EXPECT_EQ(text(R"({"pid":5,"confirmation_awaited":{"commit":7,"user":"","note":"","until":"soon"}})"),
              "pid: 5\n\nAwaiting confirmation: commit 7, undone at soon unless confirmed\n");
    EXPECT_EQ(text(R"({"pid":5,"confirmation_awaited":null})"), "pid: 5\n");
}

TEST(ctl_status, has_a_line_for_each_problem) {
    EXPECT_EQ(
        text(
            std::string(R"({"pid":5,"vrfs":[)") + broken_vrf +
            R"(],"problems":[{"subject":"VRF red","text":"its namespace is gone"},{"subject":"banner","text":"\u001b"}],)"
            R"("not_carried_out":[{"path":"/cfg/a","reason":"no way"}]})"),
        "pid: 5\n"
        "\n"
        "VRF  Services  Namespace  Server                     Ports  File       Access lists   Blocked\n"
        "red  ssh       missing    activating (auto-restart)  none   last good  1 of 2 loaded  ssh ipv4\n"
        "\n"
        "Not as configured:\n"
        "VRF red: its namespace is gone\n"
        "banner: \\x1b\n"
        "\n"
        "Stored, not carried out on this machine:\n"
        "/cfg/a: no way\n");
}

TEST(ctl_status, shows_unknown_states) {
    EXPECT_EQ(text(R"({"vrfs":[{"name":"red","services":[],"namespace":true,"unit":null,"ports":[],"file":null,)"
                   R"("access_lists":[],"blocked":true}]})"),
              "\n"
              "VRF  Services  Namespace  Server   Ports  File  Access lists  Blocked\n"
              "red  none      present    unknown  none   -     none          yes\n");
}

TEST(ctl_status, is_short_on_a_standby) {
    EXPECT_EQ(text(R"({"role":"standby","vrfs":[],"not_in_force":[],"problems":[],"not_carried_out":[]})"),
              "role: standby\n");
}

}  // namespace
