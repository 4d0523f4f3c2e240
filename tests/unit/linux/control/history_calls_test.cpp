#include "unit/linux/control/calls_support.h"
#include "unit/linux/host/import_support.h"
#include "unit/user_keys/key_samples.h"

namespace {

using datastore_test::rate_path;
using datastore_test::stored;
using datastore_test::timeout_path;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

class control_history_calls_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        ask(R"({"call":"set","path":"@cmn/timeout","value":30,"note":"as the audit wants it"})");
        ask(R"({"call":"load","items":{"@cmn/timeout":45,"@cmn/rate_limit":10,"@sshd/vrf/blue":[null,"v4"]}})");
        ask(R"({"call":"delete","path":"@cmn/timeout"})");
        take_calls();
        audit.clear();
    }
};

TEST_F(control_history_calls_test, history_lists_the_commits_the_latest_first) {
    const control_json data = ask(R"({"call":"history"})")["data"];
    ASSERT_EQ(data.size(), 3U);
    EXPECT_EQ(data[0]["number"], 3);
    EXPECT_EQ(data[0]["call"], "delete");
    EXPECT_EQ(data[1]["changes"], 3);
    EXPECT_EQ(data[2]["note"], "as the audit wants it");
    EXPECT_EQ(data[2]["uid"], 1000);
    EXPECT_THAT(data[2].value("time", ""), testing::MatchesRegex("2[-0-9]*T[:0-9]*Z"));
    EXPECT_THAT(audit, IsEmpty());
}

TEST_F(control_history_calls_test, diff_shows_old_and_new_values) {
    const std::string server = datastore_test::server_path;
    const std::string deleted = R"([{"path":")" + server + R"(cmn/timeout","outcome":"deleted","previous":45}])";
    EXPECT_EQ(data(R"({"call":"diff"})"), deleted);
    EXPECT_EQ(data(R"({"call":"diff","from":2})"), deleted);
    EXPECT_EQ(data(R"({"call":"diff","from":1,"to":2})"),
              R"([{"path":")" + server + R"(cmn/rate_limit","outcome":"created","value":10},{"path":")" + server +
                  R"(cmn/timeout","outcome":"changed","previous":30,"value":45},{"path":")" + server +
                  R"(sshd/vrf/blue","outcome":"created","value":[null,"v4",null]}])");
    EXPECT_EQ(data(R"({"call":"diff","from":3,"to":3})"), "[]");
    EXPECT_EQ(data(R"({"call":"diff","from":2,"to":0})"),
              R"([{"path":")" + server + R"(cmn/rate_limit","outcome":"deleted","previous":10},{"path":")" + server +
                  R"(cmn/timeout","outcome":"deleted","previous":45},{"path":")" + server +
                  R"(sshd/vrf/blue","outcome":"deleted","previous":[null,"v4",null]}])");
}

TEST_F(control_history_calls_test, diff_compares_a_whole_configuration) {
    const std::string server = datastore_test::server_path;
    EXPECT_EQ(
        data(R"({"call":"diff","items":{"@cmn/rate_limit":12,"@sshd/vrf/blue":[null,"v4"],"@cmn/timeout":null}})"),
        R"([{"path":")" + server + R"(cmn/rate_limit","outcome":"changed","previous":10,"value":12}])");
    EXPECT_EQ(ask(R"({"call":"diff","items":{}})")["data"].size(), 2U);
    EXPECT_EQ(result(R"({"call":"diff","items":{"@cmn/rate_limit":9999}})"), "refused");
}

TEST_F(control_history_calls_test, rollback_restores_changed_and_deleted_items_and_removes_new_ones) {
    const control_json answer = ask(R"({"call":"rollback","number":1})");
    EXPECT_EQ(answer["result"], "done");
    EXPECT_EQ(answer["commit"], 4);
    EXPECT_EQ(data(R"({"call":"dump"})"), R"({"/cfg/gl/crypto/ssh/server/cmn/timeout":30})");
    EXPECT_EQ(take_calls().size(), 6U) << "three verifiers and three appliers";
    ASSERT_EQ(audit.size(), 1U);
    EXPECT_THAT(audit[0],
                AllOf(HasSubstr("call:=rollback, result:=done"), HasSubstr("created " + std::string(timeout_path)),
                      HasSubstr("deleted " + std::string(rate_path))));
    EXPECT_EQ(ask(R"({"call":"history"})")["data"][0]["note"], "back to commit 1");
    EXPECT_EQ(result(R"({"call":"rollback","number":3,"note":"and back"})"), "done");
    EXPECT_EQ(stored(timeout_path), "none");
    EXPECT_EQ(stored(rate_path), "10");
}

TEST_F(control_history_calls_test, rollback_can_be_checked_first) {
    const control_json answer = ask(R"({"call":"rollback","number":0,"check":true})");
    EXPECT_EQ(answer["check"], true);
    EXPECT_EQ(answer["items"].size(), 2U);
    EXPECT_EQ(stored(rate_path), "10");
    EXPECT_THAT(audit, IsEmpty());
}

TEST_F(control_history_calls_test, a_past_that_is_not_known_is_reported) {
    EXPECT_EQ(result(R"({"call":"rollback","number":4})"), "no_data");
    EXPECT_EQ(message(R"({"call":"rollback","number":4})"), "there has been no commit 4; the latest is 3");
    datastore_keep_commits(1);
    EXPECT_EQ(message(R"({"call":"diff","from":1})"),
              "the configuration after commit 1 is not known any more, because later commits are no longer kept");
    EXPECT_EQ(result(R"({"call":"rollback","number":-1})"), "usage");
    EXPECT_EQ(result(R"({"call":"diff","to":"x"})"), "usage");
}

TEST_F(control_history_calls_test, only_administrators_change_anything) {
    peer.administrates = false;
    for (const char* call : {R"({"call":"rollback","number":1})", R"({"call":"confirm"})"}) {
        EXPECT_EQ(result(call), "refused") << call;
    }
    EXPECT_EQ(result(R"({"call":"history"})"), "done");
    EXPECT_EQ(result(R"({"call":"diff"})"), "done");
}

TEST_F(control_history_calls_test, load_can_replace_the_configuration) {
    const std::string load = R"("call":"load","replace":true,"items":{"@cmn/rate_limit":11,"@cmn/timeout":null}})";
    EXPECT_EQ(ask("{\"check\":true," + load)["items"].size(), 2U);
    EXPECT_EQ(result("{" + load), "done");
    EXPECT_EQ(data(R"({"call":"dump"})"), R"({"/cfg/gl/crypto/ssh/server/cmn/rate_limit":11})");
}

TEST_F(control_history_calls_test, a_commit_waits_for_its_confirmation) {
    const control_json answer = ask(R"({"call":"load","confirm":5,"items":{"@cmn/timeout":60}})");
    EXPECT_EQ(answer["confirm_within"], 300);
    const control_json refused = ask(R"({"call":"set","path":"@cmn/timeout","value":61})");
    EXPECT_EQ(refused["result"], "refused");
    EXPECT_THAT(refused.value("message", ""),
                AllOf(HasSubstr("commit 4 by "), HasSubstr("`ssh_cfg_ctl confirm` keeps it"),
                      HasSubstr("`ssh_cfg_ctl rollback 3` undoes it")));
    EXPECT_THAT(ask(R"({"call":"history"})")["warnings"][0].get<std::string>(), HasSubstr("must be confirmed first"));
    EXPECT_EQ(result(R"({"call":"rollback","number":2})"), "refused") << "goes further back";
    EXPECT_EQ(result(R"({"call":"confirm"})"), "done");
    EXPECT_THAT(audit.back(), HasSubstr("call:=confirm, result:=done, commit 4"));
    EXPECT_EQ(result(R"({"call":"confirm"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/timeout","value":61})"), "done");
}

TEST_F(control_history_calls_test, lists_and_keys_wait_for_the_confirmation_too) {
    key_test::start_imports();
    const std::string changes[] = {R"({"call":"acl_set","family":"ipv4","name":"trial","entries":[],"empty":true})",
                                   R"({"call":"acl_delete","family":"ipv4","name":"trial","absent_ok":true})",
                                   R"({"call":"key_delete","user":"alice","absent_ok":true})",
                                   R"({"call":"key_import","user":"alice","text":")" +
                                       key_test::key_of(key_test::usual(), key_test::modulus(1024)) + "\"}"};
    ask(R"({"call":"load","confirm":5,"items":{"@cmn/timeout":60}})");
    for (const std::string& change : changes) {
        const control_json answer = ask(change);
        EXPECT_EQ(answer["result"], "refused") << change;
        EXPECT_THAT(answer.value("message", ""), HasSubstr("commit 4 by ")) << change;
        EXPECT_THAT(audit.back(), HasSubstr("result:=refused, commit 4 by ")) << change;
    }
    EXPECT_EQ(result(R"({"call":"acl_list"})"), "done");
    EXPECT_EQ(result(R"({"call":"confirm"})"), "done");
    for (const std::string& change : changes) {
        EXPECT_EQ(result(change), "done") << change;
    }
}

TEST_F(control_history_calls_test, a_check_says_that_a_confirmation_is_awaited) {
    constexpr char check[] = R"({"call":"load","check":true,"items":{"@cmn/timeout":61}})";
    EXPECT_FALSE(ask(check).contains("confirmation_awaited"));
    ask(R"({"call":"load","confirm":5,"items":{"@cmn/timeout":60}})");
    const control_json answer = ask(check);
    EXPECT_EQ(answer["result"], "done");
    EXPECT_EQ(answer["confirmation_awaited"], 4);
    EXPECT_THAT(answer["warnings"][0].get<std::string>(), HasSubstr("must be confirmed first"));
    EXPECT_FALSE(ask(R"({"call":"rollback","check":true,"number":3})").contains("confirmation_awaited"));
}

TEST_F(control_history_calls_test, rollback_undoes_an_unconfirmed_commit) {
    ask(R"({"call":"load","confirm":5,"items":{"@cmn/timeout":60}})");
    EXPECT_EQ(result(R"({"call":"rollback","number":3})"), "done");
    EXPECT_EQ(stored(timeout_path), "none");
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/timeout","value":61})"), "done");
}

TEST_F(control_history_calls_test, notes_and_minutes_have_limits) {
    const std::string load = R"({"call":"load","items":{"@cmn/timeout":60},)";
    for (const std::string& rest : {std::string(R"("note":7})"), std::string(R"("note":"two\nlines"})"),
                                    R"("note":")" + std::string(501, 'x') + "\"}", std::string(R"("confirm":0})"),
                                    std::string(R"("confirm":1441})"), std::string(R"("replace":"x"})")}) {
        EXPECT_EQ(result(load + rest), "usage") << rest;
    }
    EXPECT_EQ(result(load + R"("note":")" + std::string(500, 'x') + "\"}"), "done");
}

}  // namespace
