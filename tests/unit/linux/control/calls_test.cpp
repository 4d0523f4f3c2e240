#include "linux/control/calls.h"

#include "linux/process/paths.h"
#include "linux/process/process_manager_internal.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/platform_test_support.h"

namespace {

using testing::HasSubstr;

class control_calls_test : public control_test::calls_test {};

TEST_F(control_calls_test, an_unknown_call_is_a_usage_error_that_names_it) {
    EXPECT_EQ(result(R"({"call":"format"})"), "usage");
    EXPECT_EQ(message(R"({"call":"for\nmat"})"), "unknown call \"for\\x0amat\"");
    EXPECT_LT(message(R"({"call":")" + std::string(5000, 'x') + "\"}").size(), 100U);
    EXPECT_EQ(result(R"({"call":""})"), "usage");
}

TEST_F(control_calls_test, a_missing_or_wrong_member_is_a_usage_error_that_names_it) {
    const std::pair<const char*, const char*> rows[] = {
        {R"({"call":"set","value":1})", "path"},
        {R"({"call":"set","path":1,"value":1})", "path"},
        {R"({"call":"delete"})", "path"},
        {R"({"call":"delete","path":[]})", "path"},
        {R"({"call":"load"})", "items"},
        {R"({"call":"load","items":[]})", "items"},
        {R"({"call":"load","items":{},"check":1})", "check"},
        {R"({"call":"get"})", "path"},
        {R"({"call":"list","path":null})", "path"},
        {R"({"call":"show"})", "path"},
        {R"({"call":"debug","flag":1})", "flag"},
        {R"({"call":"debug","flag":"x"})", "on"},
        {R"({"call":"debug","flag":"x","on":"yes"})", "on"},
        {R"({"call":"trace"})", "buffer"},
    };
    for (const auto& [request, member] : rows) {
        EXPECT_EQ(result(request), "usage") << request;
        EXPECT_THAT(message(request), HasSubstr("member \"" + std::string(member) + '"')) << request;
    }
    EXPECT_TRUE(take_calls().empty());
}

TEST_F(control_calls_test, unknown_members_are_ignored) {
    EXPECT_EQ(result(R"({"call":"dump","colour":"red"})"), "done");
}

// --- While a handler is at work -------------------------------------------------------------------------------------

TEST_F(control_calls_test, what_changes_nothing_and_needs_no_handler_may_be_answered_meanwhile) {
    const std::pair<const char*, bool> rows[] = {
        {R"({"call":"get","path":"/a"})", true},
        {R"({"call":"list","path":"/a"})", true},
        {R"({"call":"dump"})", true},
        {R"({"call":"vrf_list"})", true},
        {R"({"call":"status"})", true},
        {R"({"call":"status","check":true})", false},
        {R"({"call":"debug"})", true},
        {R"({"call":"debug","flag":"cfg-agent","on":true})", false},
        {R"({"call":"trace","buffer":"error"})", true},
        {R"({"call":"acl_list"})", true},
        {R"({"call":"acl_show"})", true},
        {R"({"call":"key_list"})", true},
        {R"({"call":"nonsense"})", true},
        {R"({"call":"set"})", false},
        {R"({"call":"delete"})", false},
        {R"({"call":"load"})", false},
        {R"({"call":"show"})", false},
        {R"({"call":"watch"})", false},
        {R"({"call":"vrf_unblock"})", false},
        {R"({"call":"verify"})", false},
        {R"({"call":"repair"})", false},
        {R"({"call":"acl_set"})", false},
        {R"({"call":"acl_delete"})", false},
        {R"({"call":"key_import"})", false},
        {R"({"call":"key_delete"})", false},
        {R"({"call":"sessions"})", true},
        {R"({"call":"session_end"})", true},
        {R"({"call":"reload"})", false},
        {R"({"call":"reload_state"})", false},
    };
    for (const auto& [request, meanwhile] : rows) {
        std::string error;
        EXPECT_EQ(control_may_be_answered_meanwhile(*control_json_parse(request, error)), meanwhile) << request;
    }
}

std::vector<std::string> seen_at_work;

/// Reads while a commit is carried out.
void read_meanwhile() {
    const control_json answer = control_call({{"call", "get"}, {"path", "/cfg/gl/crypto/ssh/server/cmn/timeout"}}, {});
    seen_at_work.push_back(control_progress().value("work", "") + " = " + control_json_text(answer["data"]));
}

TEST_F(control_calls_test, reads_in_the_middle_of_a_commit_see_what_is_stored_and_how_far_it_is) {
    seen_at_work.clear();
    process_manager_at_progress(read_meanwhile);
    ask(R"({"call":"set","path":"@cmn/timeout","value":45})");
    process_manager_at_progress(nullptr);
    ASSERT_FALSE(seen_at_work.empty());
    EXPECT_EQ(seen_at_work.front(), "applying /cfg/gl/crypto/ssh/server/cmn/timeout = 45");
    EXPECT_TRUE(control_progress().is_null());
    EXPECT_EQ(data(R"({"call":"get","path":"@cmn/timeout"})"), "45");
}

// --- Who may do what ------------------------------------------------------------------------------------------------

TEST_F(control_calls_test, readers_read_and_change_nothing) {
    peer.administrates = false;
    for (const char* request :
         {R"({"call":"set","path":"@cmn/timeout","value":46})", R"({"call":"delete","path":"@cmn/timeout"})",
          R"({"call":"load","items":{"@cmn/timeout":46}})",
          R"({"call":"load","check":true,"items":{"@cmn/timeout":46}})",
          R"({"call":"acl_set","family":"ipv4","name":"a","lines":[],"empty":true})",
          R"({"call":"acl_delete","family":"ipv4","name":"a"})", R"({"call":"key_import","user":"alice","text":"x"})",
          R"({"call":"key_delete","user":"alice"})", R"({"call":"debug","flag":"cfg-agent","on":true})",
          R"({"call":"vrf_unblock","name":"red"})", R"({"call":"session_end","user":"x"})", R"({"call":"reload"})",
          R"({"call":"repair"})"}) {
        EXPECT_EQ(result(request), "refused") << request;
        EXPECT_EQ(message(request), "permission denied: changes are up to root and members of the group sshcfg-admin");
    }
    EXPECT_EQ(data(R"({"call":"dump"})"), "{}");
    EXPECT_THAT(audit.back(), HasSubstr("uid:=1000, pid:=42, call:=repair, result:=refused, not an administrator"));
    for (const char* request : {R"({"call":"dump"})", R"({"call":"list","path":"/cfg/"})", R"({"call":"acl_list"})",
                                R"({"call":"key_list"})", R"({"call":"debug"})", R"({"call":"trace","buffer":"error"})",
                                R"({"call":"status"})", R"({"call":"watch"})"}) {
        EXPECT_FALSE(message(request).starts_with("permission denied")) << request;
    }
    peer.uid = 0;
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/timeout","value":46})"), "done") << "root needs no group";
}

TEST_F(control_calls_test, keys_of_user_id_0_are_roots_alone) {
    platform_test::write_file("/etc/passwd",
                              "root:x:0:0::/root:/bin/sh\ntoor:x:0:0::/root:/bin/sh\n"
                              "alice:x:1000:1000::/home/alice:/bin/sh\n");
    const std::string denied = "permission denied: user toor has user ID 0, and only root may change such a key";
    const std::string item = std::string(control_test::server_path) + "cmn/username/toor/keystr";
    const std::string set = R"({"call":"set","path":"@cmn/username/toor/keystr","value":"ssh-rsa A"})";
    EXPECT_EQ(message(set), item + ": " + denied);
    EXPECT_EQ(result(set), "refused");
    EXPECT_EQ(message(R"({"call":"load","items":{"@cmn/timeout":46,"@cmn/username/toor/keystr":"ssh-rsa A"}})"),
              item + ": " + denied);
    EXPECT_EQ(message(R"({"call":"load","items":{"@cmn/username/toor":true}})"),
              std::string(control_test::server_path) + "cmn/username/toor: " + denied);
    EXPECT_EQ(message(R"({"call":"key_import","user":"toor","text":"ssh-rsa A"})"), denied);
    EXPECT_EQ(message(R"({"call":"key_delete","user":"toor"})"), denied);
    EXPECT_EQ(data(R"({"call":"dump"})"), "{}");
    peer = {42, 0, 0};
    EXPECT_EQ(result(set), "done");
    peer = {42, 1000, 1001, true};
    EXPECT_EQ(message(R"({"call":"delete","path":"@cmn/username/"})"), item + ": " + denied);
    EXPECT_EQ(message(R"({"call":"delete","path":"@cmn/username/toor/keystr"})"), item + ": " + denied);
    EXPECT_EQ(result(set), "done") << "what is so already changes nothing";
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/username/alice/keystr","value":"ssh-rsa A"})"), "done");
}

// --- Standby ---------------------------------------------------------------------------------------------------------

/// The agent of a standby node, which has not opened the database.
class control_standby_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        ask(R"({"call":"set","path":"@cmn/timeout","value":45})");
        audit.clear();
        take_calls();
        datastore_release();
        platform_test::write_file(platform_config_file, "role = standby\n");
        process_manager_role();
    }
    void TearDown() override {
        std::filesystem::remove(platform_config_file);
        process_manager_reset();
        calls_test::TearDown();
    }
};

TEST_F(control_standby_test, status_shows_the_standby) {
    const control_json answer = ask(R"({"call":"status"})");
    EXPECT_EQ(answer["result"], "done");
    EXPECT_EQ(answer["data"]["role"], "standby");
    EXPECT_TRUE(answer["data"]["vrfs"].empty());
}

TEST_F(control_standby_test, the_configuration_is_read_from_a_database_opened_for_the_call) {
    EXPECT_EQ(data(R"({"call":"get","path":"@cmn/timeout"})"), "45");
    EXPECT_EQ(data(R"({"call":"dump"})"), R"({"/cfg/gl/crypto/ssh/server/cmn/timeout":45})");
    EXPECT_EQ(result(R"({"call":"acl_list"})"), "done");
    datastore_value value;
    EXPECT_EQ(datastore_get_value(datastore_test::timeout_path, value), platform_status{DATASTORE_UNAVAILABLE});
}

TEST_F(control_standby_test, changes_are_refused) {
    for (const char* request :
         {R"({"call":"set","path":"@cmn/timeout","value":46})", R"({"call":"delete","path":"@cmn/timeout"})",
          R"({"call":"load","items":{"@cmn/timeout":46}})",
          R"({"call":"acl_set","family":"ipv4","name":"a","lines":[]})",
          R"({"call":"acl_delete","family":"ipv4","name":"a"})", R"({"call":"key_delete","user":"alice"})",
          R"({"call":"reload"})", R"({"call":"repair"})"}) {
        const control_json answer = ask(request);
        EXPECT_EQ(answer["result"], "refused") << request;
        EXPECT_EQ(answer["message"], "this node is a standby and takes no changes until it becomes the primary node");
    }
    EXPECT_TRUE(take_calls().empty());
    EXPECT_EQ(data(R"({"call":"get","path":"@cmn/timeout"})"), "45");
}

TEST_F(control_standby_test, data_of_a_primary_node_is_not_available) {
    for (const char* request : {R"({"call":"show","path":"/oper/crypto-ssh/gl/server-params"})",
                                R"({"call":"vrf_list"})", R"({"call":"watch"})", R"({"call":"verify"})"}) {
        EXPECT_EQ(result(request), "no_data") << request;
    }
}

}  // namespace
