#include <sys/stat.h>

#include "linux/enforcement/enforcement_internal.h"
#include "linux/vrf/vrf_table_internal.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/platform_test_support.h"

namespace {

using testing::HasSubstr;

int differences_of_reconcile(uint32_t, enforcement_difference_sink sink, void* sink_context, void*) {
    sink("file /a", "differs", sink_context);
    sink("server red", "is known", sink_context);
    return 2;
}

class control_status_calls_test : public control_test::calls_test {
  protected:
    void TearDown() override {
        enforcement_reset();
        calls_test::TearDown();
    }
    static std::string texts(const control_json& list) { return control_json_text(list); }
};

TEST_F(control_status_calls_test, a_configured_vrf_without_namespace_is_shown) {
    ASSERT_EQ(result(R"({"call":"set","path":"@sshd/vrf/nowhere","value":[null,"absent",null]})"), "done");
    const control_json status = ask(R"({"call":"status"})");
    EXPECT_EQ(status["result"], "done") << "despite all problems";
    ASSERT_EQ(status["data"]["vrfs"].size(), 1U);
    const control_json& vrf = status["data"]["vrfs"][0];
    EXPECT_EQ(vrf["name"], "nowhere");
    EXPECT_EQ(texts(vrf["services"]), R"(["ssh"])");
    EXPECT_EQ(vrf["namespace"], false);
    EXPECT_EQ(texts(vrf["ports"]), "[]");
    EXPECT_EQ(texts(vrf["access_lists"]), R"([{"service":"ssh","family":"ipv4","name":"absent","state":"no_list"}])");
    EXPECT_TRUE(vrf["blocked_since"].is_null());
    EXPECT_THAT(texts(status["data"]["problems"]), HasSubstr("its namespace vrf-nowhere does not exist"));
}

TEST_F(control_status_calls_test, a_vrf_without_item_is_not_shown) {
    uint32_t id = 0;
    ASSERT_EQ(vrf_table_lookup("green", &id), PLATFORM_OK);
    EXPECT_TRUE(ask(R"({"call":"status"})")["data"]["vrfs"].empty());
}

TEST_F(control_status_calls_test, recorded_failures_are_shown_with_their_vrf) {
    ASSERT_EQ(result(R"({"call":"set","path":"@sshd/vrf/nowhere","value":[null,null,null]})"), "done");
    enforcement_failed("server nowhere", "it fails");
    enforcement_failed("file /var/opt/norvo/norvossh/sshd_config_nowhere", "disk full");
    enforcement_failed("server nowhere2", "of another VRF");
    enforcement_failed("key nowhere", "of a user with the VRF's name");
    const control_json data = ask(R"({"call":"status"})")["data"];
    EXPECT_EQ(data["not_in_force"].size(), 4U);
    ASSERT_EQ(data["vrfs"][0]["failures"].size(), 2U);
    EXPECT_EQ(data["vrfs"][0]["failures"][1]["reason"], "it fails");
    EXPECT_THAT(texts(data["problems"]), HasSubstr("of another VRF"));
}

TEST_F(control_status_calls_test, a_check_also_compares_and_fails) {
    constexpr enforcement_callbacks callbacks = {differences_of_reconcile};
    ASSERT_EQ(enforcement_register(&callbacks, nullptr), PLATFORM_OK);
    enforcement_failed("server red", "it fails");
    EXPECT_EQ(result(R"({"call":"status"})"), "done");
    EXPECT_EQ(result(R"({"call":"status","check":false})"), "done");
    const control_json answer = ask(R"({"call":"status","check":true})");
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_THAT(answer["message"].get<std::string>(), HasSubstr("not as configured"));
    EXPECT_THAT(texts(answer["data"]["problems"]), HasSubstr(R"({"subject":"file /a","text":"differs"})"));
    EXPECT_THAT(texts(answer["data"]["problems"]), Not(HasSubstr("is known"))) << "already reported by the failure";
    EXPECT_EQ(result(R"({"call":"status","check":1})"), "usage");
}

TEST_F(control_status_calls_test, a_commit_on_trial_is_shown_until_it_is_confirmed) {
    EXPECT_TRUE(ask(R"({"call":"status"})")["data"]["confirmation_awaited"].is_null());
    const control_json loaded = ask(R"({"call":"load","confirm":5,"note":"new limits","items":{"@cmn/timeout":60}})");
    const control_json data = ask(R"({"call":"status"})")["data"];
    const control_json& awaited = data["confirmation_awaited"];
    EXPECT_EQ(awaited["commit"], loaded["commit"]);
    EXPECT_EQ(awaited["note"], "new limits");
    EXPECT_EQ(awaited["user"], ask(R"({"call":"history"})")["data"][0]["user"]);
    EXPECT_THAT(awaited["until"].get<std::string>(), testing::MatchesRegex("2[-0-9]*T[:0-9]*Z"));
    EXPECT_EQ(result(R"({"call":"confirm"})"), "done");
    EXPECT_TRUE(ask(R"({"call":"status"})")["data"]["confirmation_awaited"].is_null());
}

/// Stands in for systemd in this process, and knows no unit.
void stand_in_for_systemctl() {
    const std::string folder = testing::TempDir() + "status_calls_test";
    platform_test::write_file(folder + "/systemctl", "#!/bin/sh\n");
    ASSERT_EQ(chmod((folder + "/systemctl").c_str(), 0755), 0);
    setenv("PATH", (folder + ":" + getenv("PATH")).c_str(), 1);
}

TEST_F(control_status_calls_test, a_check_succeeds_when_everything_is_as_configured) {
    stand_in_for_systemctl();
    constexpr enforcement_callbacks callbacks = {
        [](uint32_t repair, enforcement_difference_sink, void*, void*) { return static_cast<int>(repair); }};
    ASSERT_EQ(enforcement_register(&callbacks, nullptr), PLATFORM_OK);
    const control_json answer = ask(R"({"call":"status","check":true})");
    EXPECT_EQ(answer["result"], "done");
    EXPECT_EQ(texts(answer["data"]["problems"]), "[]");
}

TEST_F(control_status_calls_test, a_check_without_comparison_reports_that) {
    EXPECT_THAT(texts(ask(R"({"call":"status","check":true})")["data"]["problems"]), HasSubstr("cannot be compared"));
}

}  // namespace
