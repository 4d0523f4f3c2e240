#include "linux/host/shelf_manager_internal.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/platform_test_support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

void acknowledge(shelf_manager* shelf, void* context) {
    if (*static_cast<bool*>(context)) {
        EXPECT_EQ(shelf_manager_acknowledge_reload(shelf), PLATFORM_OK);
    }
}

class control_reload_calls_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        ASSERT_LE(0, sd_event_new(&loop));
    }
    void TearDown() override {
        shelf_manager_reset();
        sd_event_unref(loop);
        calls_test::TearDown();
    }

    void register_agent() {
        ASSERT_EQ(shelf_manager_create(loop, &shelf), PLATFORM_OK);
        shelf_manager_set_reload_callback(shelf, acknowledge, &acknowledges);
        shelf_manager_set_connect_callback(
            shelf, [](shelf_manager* client, void*) { shelf_manager_register_reload(client); }, nullptr);
        ASSERT_EQ(shelf_manager_connect(shelf), PLATFORM_OK);
        shelf_manager_link(true);
        ASSERT_LE(0, sd_event_run(loop, 0));
    }

    sd_event* loop = nullptr;
    shelf_manager* shelf = nullptr;
    bool acknowledges = true;
};

TEST_F(control_reload_calls_test, an_acknowledged_reload_succeeds) {
    register_agent();
    EXPECT_EQ(control_json_text(ask(R"({"call":"reload"})")), R"({"result":"done"})");
    EXPECT_THAT(audit, ElementsAre("Control: uid:=1000, pid:=42, call:=reload, result:=done, asked for",
                                   "Control: uid:=1000, pid:=42, call:=reload, result:=done, acknowledged"));
}

TEST_F(control_reload_calls_test, a_caller_polls_until_the_acknowledgement_arrives) {
    acknowledges = false;
    register_agent();
    const control_json waiting = ask(R"({"call":"reload","timeout":60})");
    EXPECT_EQ(control_json_text(waiting), R"({"result":"done","next":{"call":"reload_state","number":1}})");
    const std::string next = control_json_text(waiting["next"]);
    EXPECT_EQ(ask(next), waiting);
    EXPECT_EQ(shelf_manager_acknowledge_reload(shelf), PLATFORM_OK);
    EXPECT_EQ(control_json_text(ask(next)), R"({"result":"done"})");
}

TEST_F(control_reload_calls_test, a_reload_without_acknowledgement_fails_after_its_timeout) {
    acknowledges = false;
    register_agent();
    const std::string next = control_json_text(ask(R"({"call":"reload","timeout":1})")["next"]);
    usleep(2100000);
    const control_json answer = ask(next);
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_THAT(answer["message"].get<std::string>(), HasSubstr("was not acknowledged within 1 seconds"));
}

TEST_F(control_reload_calls_test, a_second_reload_reports_the_first) {
    acknowledges = false;
    register_agent();
    ask(R"({"call":"reload","timeout":60})");
    const control_json answer = ask(R"({"call":"reload"})");
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_THAT(answer["message"].get<std::string>(),
                HasSubstr("a reload is in progress: its notice was sent 0 seconds"));
    EXPECT_THAT(audit.back(), HasSubstr("result:=failed, a reload is in progress"));
}

TEST_F(control_reload_calls_test, a_caller_of_an_older_reload_learns_of_the_newer_one) {
    acknowledges = false;
    register_agent();
    const std::string next = control_json_text(ask(R"({"call":"reload","timeout":1})")["next"]);
    usleep(2100000);
    ask(R"({"call":"reload","timeout":60})");
    EXPECT_THAT(ask(next)["message"].get<std::string>(), HasSubstr("a newer one has been announced"));
}

TEST_F(control_reload_calls_test, without_a_client_nobody_can_acknowledge) {
    const control_json answer = ask(R"({"call":"reload"})");
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_THAT(answer["message"].get<std::string>(), HasSubstr("the agent has not registered for reload notices"));
    EXPECT_EQ(result(R"({"call":"reload_state","number":0})"), "no_data");
}

TEST_F(control_reload_calls_test, members_are_checked) {
    register_agent();
    for (const char* timeout : {"0", "3601", "-1", "1.5", "\"5\"", "null", "99999999999999999999"}) {
        EXPECT_EQ(result(std::string(R"({"call":"reload","timeout":)") + timeout + "}"), "usage") << timeout;
    }
    EXPECT_EQ(result(R"({"call":"reload_state"})"), "usage");
    EXPECT_EQ(result(R"({"call":"reload_state","number":-1})"), "usage");
    EXPECT_THAT(audit, testing::IsEmpty());
}

TEST_F(control_reload_calls_test, handlers_cannot_commit) {
    register_agent();
    shelf_manager_set_reload_callback(
        shelf,
        [](shelf_manager* client, void*) {
            EXPECT_EQ(datastore_test::set(datastore_test::timeout_path, datastore_test::number(30)).status,
                      platform_status{EBUSY});
            EXPECT_EQ(shelf_manager_acknowledge_reload(client), PLATFORM_OK);
        },
        nullptr);
    EXPECT_EQ(result(R"({"call":"reload"})"), "done");
}

}  // namespace
