#include <filesystem>

#include "linux/process/process_manager_internal.h"
#include "linux/vrf/mpp_internal.h"
#include "linux/vrf/vrf_table_internal.h"
#include "platform/debug.h"
#include "platform/trace.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/vrf/vrf_namespace_support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class control_state_calls_test : public control_test::calls_test {};

TEST_F(control_state_calls_test, vrfs_are_listed_with_the_state_of_every_service) {
    uint32_t id = 0;
    ASSERT_EQ(vrf_table_lookup("green", &id), PLATFORM_OK);
    const control_json vrfs = ask(R"({"call":"vrf_list"})")["data"];
    bool found = false;
    for (const control_json& vrf : vrfs) {
        EXPECT_THAT(control_json_text(vrf), HasSubstr("\"namespace\":"));
        if (vrf["name"] == "green") {
            found = true;
            EXPECT_EQ(control_json_text(vrf), R"({"name":"green","id":)" + std::to_string(id) +
                                                  R"(,"namespace":false,"ssh":false,"netconf":false,"waiting":[],)" +
                                                  R"("blocked":false,"closed":[]})");
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(control_state_calls_test, a_service_without_a_namespace_waits) {
    ASSERT_EQ(
        result(
            R"({"call":"set","path":"/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/nowhere","value":[null,null,null]})"),
        "done");
    const control_json answer = ask(R"({"call":"vrf_list"})");
    for (const control_json& vrf : answer["data"]) {
        EXPECT_EQ(control_json_text(vrf["waiting"]), vrf["name"] == "nowhere" ? R"(["netconf"])" : "[]");
        EXPECT_EQ(vrf["ssh"], false);
        EXPECT_EQ(vrf["netconf"], false);
    }
}

TEST_F(control_state_calls_test,
       a_configured_service_with_its_namespace_is_attached_even_if_protection_does_not_know_it) {
    platform_test::add_vrf("red");
    ASSERT_EQ(
        result(R"({"call":"set","path":"/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/red","value":[null,null,null]})"),
        "done");
    const control_json answer = ask(R"({"call":"vrf_list"})");
    platform_test::remove_vrf("red");
    for (const control_json& vrf : answer["data"]) {
        EXPECT_EQ(vrf["netconf"], vrf["name"] == "red");
        EXPECT_EQ(vrf["ssh"], false);
    }
    EXPECT_THAT(answer["data"].dump(), HasSubstr("\"red\""));
}

TEST_F(control_state_calls_test, status_describes_the_process) {
    const control_json status = ask(R"({"call":"status"})")["data"];
    EXPECT_EQ(status["version"], control_version());
    EXPECT_EQ(status["pid"], getpid());
    EXPECT_EQ(status["role"], "primary");
    EXPECT_TRUE(status["ready"].is_boolean());
    EXPECT_TRUE(status["respawn_count"].is_number());
    EXPECT_TRUE(status["uptime_seconds"].is_number());
    EXPECT_TRUE(status["vrfs"].is_array());
}

TEST_F(control_state_calls_test, debug_flags_are_listed_and_switched) {
    debug_flag_register("/debug/control_test/", 27, "control-flag", DEBUG_FLAG_TYPE, DEBUG_FLAG_LEVEL);
    EXPECT_THAT(data(R"({"call":"debug"})"),
                HasSubstr(R"({"name":"control-flag","on":false,"path":"/debug/control_test/)"));
    EXPECT_EQ(ask(R"({"call":"debug","flag":"control-flag","on":true})")["changed"], true);
    EXPECT_EQ(debug_flag_is_on(27), 1);
    EXPECT_EQ(ask(R"({"call":"debug","flag":"control-flag","on":true})")["changed"], false);
    audit.pop_back();
    EXPECT_EQ(result(R"({"call":"debug","flag":"control-flag","on":false})"), "done");
    EXPECT_EQ(debug_flag_is_on(27), 0);
    EXPECT_THAT(audit, ElementsAre("Control: uid:=1000, pid:=42, call:=debug, result:=done, control-flag on",
                                   "Control: uid:=1000, pid:=42, call:=debug, result:=done, control-flag off"));
}

TEST_F(control_state_calls_test, an_unknown_debug_flag_is_refused_with_a_list_of_flags) {
    debug_flag_register("/debug/control_test/", 27, "control-flag", DEBUG_FLAG_TYPE, DEBUG_FLAG_LEVEL);
    EXPECT_EQ(result(R"({"call":"debug","flag":"x;y","on":true})"), "refused");
    EXPECT_THAT(message(R"({"call":"debug","flag":"x;y","on":true})"),
                AllOf(HasSubstr("unknown debug flag \"x;y\""), HasSubstr("control-flag")));
    EXPECT_THAT(audit.back(), HasSubstr("result:=refused, x;y on"));
}

TEST_F(control_state_calls_test, traces_return_their_entries_in_order) {
    trace_buffer* buffer = nullptr;
    ASSERT_EQ(trace_buffer_create("test/control/calls", 10, 1000, &buffer), PLATFORM_OK);
    const trace_argument arguments[] = {{"red", 0}, {nullptr, -7}};
    trace_write(buffer, 18, arguments, 2);
    trace_write(buffer, 19, nullptr, 0);
    const control_json answer = ask(R"({"call":"trace","buffer":"calls"})");
    ASSERT_EQ(answer["data"].size(), 2U);
    EXPECT_EQ(answer["written"], 2);
    EXPECT_EQ(answer["data"][0]["point"], 18);
    EXPECT_TRUE(answer["data"][0]["name"].is_null());
    EXPECT_EQ(control_json_text(answer["data"][0]["arguments"]), R"({"1":"red","2":-7})");
    EXPECT_THAT(answer["data"][0]["time"].get<std::string>(),
                testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{6}Z"));
    EXPECT_EQ(control_json_text(answer["data"][1]["arguments"]), "{}");
    EXPECT_EQ(result(R"({"call":"trace","buffer":"nonsense"})"), "refused");
}

TEST_F(control_state_calls_test, traces_contain_names_labels_and_the_text_of_a_failure) {
    static const trace_point points[] = {{18, "vrf.start", "server not started", {"vrf", "status"}}};
    trace_buffer* buffer = nullptr;
    ASSERT_EQ(trace_buffer_create("test/control/described", 10, 1000, &buffer), PLATFORM_OK);
    trace_buffer_describe(buffer, points, 1);
    const trace_argument failure[] = {{"red", 0}, {nullptr, ENOENT}, {nullptr, 3}};
    const trace_argument success[] = {{"red", 0}, {nullptr, 0}};
    trace_write(buffer, 18, failure, 3);
    trace_write(buffer, 18, success, 2);
    control_json data = ask(R"({"call":"trace","buffer":"described"})")["data"];
    data[0].erase("time");
    EXPECT_EQ(control_json_text(data[0]), R"({"point":18,"name":"vrf.start",)"
                                          R"("arguments":{"vrf":"red","status":2,"3":3},)"
                                          R"("error":"No such file or directory"})");
    EXPECT_FALSE(data[1].contains("error"));
}

}  // namespace
