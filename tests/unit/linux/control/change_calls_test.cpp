#include <errno.h>

#include "unit/linux/control/calls_support.h"
#include "unit/linux/enforcement/enforcement_test_support.h"

namespace {

using datastore_test::engine_in_memory;
using datastore_test::memory;
using datastore_test::rate_path;
using datastore_test::stored;
using datastore_test::timeout_path;
using datastore_test::vrf_path;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class control_change_calls_test : public control_test::calls_test {
  protected:
    /// Refused with a text that contains `reason`; nothing is stored, no handler is called, and the refusal is audited.
    void expect_refused(const std::string& request, const std::vector<std::string>& named) {
        audit.clear();
        const control_json answer = ask(request);
        EXPECT_EQ(answer.value("result", ""), "refused") << request;
        for (const std::string& text : named) {
            EXPECT_THAT(answer.value("message", ""), HasSubstr(text)) << request;
        }
        EXPECT_EQ(data(R"({"call":"dump"})"), "{}");
        EXPECT_THAT(take_calls(), IsEmpty());
        ASSERT_EQ(audit.size(), 1U) << request;
        EXPECT_THAT(audit[0], HasSubstr("result:=refused"));
    }
};

TEST_F(control_change_calls_test, set_stores_applies_and_audits) {
    const control_json answer = ask(R"({"call":"set","path":"@cmn/timeout","value":45})");
    EXPECT_EQ(control_json_text(answer),
              R"({"result":"done","check":false,"changed":true,)"
              R"("items":[{"path":"/cfg/gl/crypto/ssh/server/cmn/timeout","outcome":"created"}],"commit":1})");
    EXPECT_EQ(stored(timeout_path), "45");
    EXPECT_THAT(take_calls(), ElementsAre("verify 3 cmn/timeout - -> 45", "apply 3 cmn/timeout - -> 45"));
    EXPECT_THAT(audit, ElementsAre("Control: uid:=1000, pid:=42, call:=set, result:=done, created "
                                   "/cfg/gl/crypto/ssh/server/cmn/timeout"));
}

TEST_F(control_change_calls_test, a_value_without_effect_on_this_machine_is_stored_with_a_warning) {
    const std::string load =
        R"({"call":"load","items":{"@cmn/trustpoint/host":"corp-ca","@cmn/timeout":45,"@cmn/trustpoint/user/x":null}})";
    ask(R"({"call":"set","path":"@cmn/trustpoint/user/x","value":true})");
    EXPECT_EQ(control_json_text(ask(load).value("warnings", control_json())),
              R"(["/cfg/gl/crypto/ssh/server/cmn/trustpoint/host: stored, not carried out on this machine: )"
              R"(OpenSSH does not support x509v3 certificates"])");
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/trustpoint/host","value":"other-ca"})"), "done");
    EXPECT_EQ(
        control_json_text(ask(R"({"call":"load","check":true,"items":{"@cmn/trustpoint/host":"x"}})")["warnings"]),
        R"(["/cfg/gl/crypto/ssh/server/cmn/trustpoint/host: would be stored, not carried out on this machine: )"
        R"(OpenSSH does not support x509v3 certificates"])");
    EXPECT_FALSE(ask(R"({"call":"delete","path":"@cmn/trustpoint/host"})").contains("warnings"));
}

TEST_F(control_change_calls_test, set_accepts_bare_words) {
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/timeout","word":"45"})"), "done");
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/trustpoint/host","word":"corp-ca"})"), "done");
    EXPECT_EQ(result(R"({"call":"set","path":"@sshd/vrf/blue","word":"[null,\"v4\"]"})"), "done");
    EXPECT_EQ(
        data(R"({"call":"dump"})"),
        R"({"/cfg/gl/crypto/ssh/server/cmn/timeout":45,"/cfg/gl/crypto/ssh/server/cmn/trustpoint/host":"corp-ca",)"
        R"("/cfg/gl/crypto/ssh/server/sshd/vrf/blue":[null,"v4",null]})");
}

TEST_F(control_change_calls_test, a_path_may_be_given_by_its_end) {
    const control_json answer = ask(R"({"call":"set","path":"timeout","word":"45"})");
    EXPECT_EQ(control_json_text(answer),
              R"({"result":"done","check":false,"changed":true,)"
              R"("items":[{"path":"/cfg/gl/crypto/ssh/server/cmn/timeout","outcome":"created"}],"commit":1,)"
              R"("path":"/cfg/gl/crypto/ssh/server/cmn/timeout"})");
    EXPECT_THAT(audit.back(), HasSubstr("created /cfg/gl/crypto/ssh/server/cmn/timeout"));
    EXPECT_EQ(ask(R"({"call":"set","path":"timeout","word":"500"})")["path"], timeout_path);
    EXPECT_EQ(ask(R"({"call":"delete","path":"cmn/timeout"})")["items"][0]["outcome"], "deleted");
    EXPECT_EQ(result(R"({"call":"delete","path":"timeout"})"), "no_data");
}

TEST_F(control_change_calls_test, an_ambiguous_path_changes_nothing_and_lists_its_meanings) {
    for (const char* request :
         {R"({"call":"set","path":"rekey_time","word":"45"})", R"({"call":"delete","path":"rekey_time"})"}) {
        EXPECT_EQ(
            control_json_text(ask(request)),
            R"({"result":"usage","message":"rekey_time: ambiguous, expected one of\n)"
            R"(/cfg/gl/crypto/ssh/client/rekey_time\n/cfg/gl/crypto/ssh/server/cmn/rekey_time",)"
            R"("candidates":["/cfg/gl/crypto/ssh/client/rekey_time","/cfg/gl/crypto/ssh/server/cmn/rekey_time"]})");
    }
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_THAT(audit, IsEmpty());
}

TEST_F(control_change_calls_test, a_short_path_of_a_folder_deletes_what_is_below_it) {
    ask(R"({"call":"load","items":{"@sshd/vrf/blue":[],"@sshd/vrf/red":[],"@cmn/timeout":45}})");
    EXPECT_EQ(result(R"({"call":"delete","path":"vrf"})"), "no_data");
    const control_json answer = ask(R"({"call":"delete","path":"vrf/"})");
    EXPECT_EQ(answer["items"].size(), 2U);
    EXPECT_EQ(answer["path"], "/cfg/gl/crypto/ssh/server/sshd/vrf/");
    EXPECT_EQ(result(R"({"call":"delete","path":"banner/"})"), "usage");
    EXPECT_EQ(result(R"({"call":"delete","path":"nowhere/"})"), "refused");
    EXPECT_EQ(stored(timeout_path), "45");
}

TEST_F(control_change_calls_test, an_item_without_fields_needs_no_value) {
    EXPECT_EQ(result(R"({"call":"set","path":"vrf/blue"})"), "done");
    EXPECT_EQ(data(R"({"call":"get","path":"vrf/blue"})"), "[null,null,null]");
    EXPECT_EQ(result(R"({"call":"set","path":"logging"})"), "done");
    EXPECT_EQ(data(R"({"call":"get","path":"logging"})"), "true");
    EXPECT_EQ(result(R"({"call":"set","path":"timeout"})"), "usage");
    EXPECT_EQ(message(R"({"call":"set","path":"timeout"})"),
              "/cfg/gl/crypto/ssh/server/cmn/timeout: the value is missing; expected a number from 5 to 120 (seconds, "
              "login grace time)");
    EXPECT_EQ(result(R"({"call":"set","path":"server/cmn/algorithms/cipher"})"), "usage");
    EXPECT_EQ(result(R"({"call":"set","path":"nowhere"})"), "refused");
}

TEST_F(control_change_calls_test, absent_items_are_deleted_if_that_is_accepted) {
    const std::string items = R"("items":{"@cmn/timeout":null,"@cmn/rate_limit":10}})";
    EXPECT_EQ(result(R"({"call":"load",)" + items), "no_data");
    const control_json answer = ask(R"({"call":"load","absent_ok":true,)" + items);
    EXPECT_EQ(answer["changed"], true);
    EXPECT_EQ(answer["items"][1]["outcome"], "unchanged");
    EXPECT_EQ(ask(R"({"call":"load","absent_ok":true,)" + items)["changed"], false);
    EXPECT_EQ(ask(R"({"call":"delete","path":"timeout","absent_ok":true})")["changed"], false);
    EXPECT_EQ(ask(R"({"call":"delete","path":"vrf/","absent_ok":true})")["changed"], false);
    EXPECT_EQ(ask(R"({"call":"delete","path":"rate_limit","absent_ok":true})")["changed"], true);
    EXPECT_EQ(result(R"({"call":"delete","path":"/cfg/nowhere","absent_ok":true})"), "refused");
    EXPECT_EQ(result(R"({"call":"delete","path":"timeout","absent_ok":1})"), "usage");
    EXPECT_EQ(result(R"({"call":"load","items":{},"absent_ok":1})"), "usage");
}

TEST_F(control_change_calls_test, absent_fields_at_the_end_do_not_count) {
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/algorithms/cipher","value":["aes128-ctr",null,null]})"), "done");
    EXPECT_EQ(data(R"({"call":"get","path":"@cmn/algorithms/cipher"})"), R"(["aes128-ctr"])");
    EXPECT_EQ(result(R"({"call":"set","path":"@sshd/vrf/blue","value":[null,"v4",null,null,null]})"), "done");
    EXPECT_EQ(ask(R"({"call":"set","path":"@sshd/vrf/blue","value":[null,"v4"]})")["items"][0]["outcome"], "unchanged");
}

TEST_F(control_change_calls_test, a_service_without_a_namespace_is_stored_and_waits) {
    const std::string item = R"("@sshd/vrf-netconf/nowhere":[null,null,null])";
    const std::string path = "/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/nowhere";
    EXPECT_EQ(control_json_text(ask(R"({"call":"load","check":true,"items":{)" + item + "}}")["warnings"]),
              "[\"" + path + ": would be stored, waits for namespace vrf-nowhere\"]");
    EXPECT_EQ(control_json_text(ask(R"({"call":"load","items":{)" + item + "}}")["warnings"]),
              "[\"" + path + ": stored, waits for namespace vrf-nowhere\"]");
    EXPECT_FALSE(ask(R"({"call":"delete","path":"@sshd/vrf-netconf/nowhere"})").contains("warnings"));
}

TEST_F(control_change_calls_test, an_equal_value_changes_nothing) {
    ask(R"({"call":"set","path":"@cmn/timeout","value":45})");
    take_calls();
    const control_json answer = ask(R"({"call":"set","path":"@cmn/timeout","value":45})");
    EXPECT_EQ(answer["items"][0]["outcome"], "unchanged");
    EXPECT_EQ(answer["changed"], false);
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_THAT(audit.back(), HasSubstr("nothing to change"));
}

TEST_F(control_change_calls_test, invalid_values_are_refused_by_name) {
    expect_refused(R"({"call":"set","path":"@cmn/timeout","value":500})",
                   {"/cfg/gl/crypto/ssh/server/cmn/timeout", "500", "5 to 120"});
    expect_refused(R"({"call":"set","path":"@cmn/timeout","word":"soon"})", {"cmn/timeout", "\"soon\"", "a number"});
    expect_refused(R"({"call":"set","path":"@cmn/timeout","word":"99999999999999999999"})",
                   {"99999999999999999999 is out of range", "5 to 120"});
    expect_refused(R"({"call":"set","path":"@cmn/timeout","value":30.5})", {"30.5", "whole number"});
    expect_refused(R"({"call":"set","path":"@cmn/timeout","value":[30]})", {"[30]", "a number"});
    expect_refused(R"({"call":"set","path":"@cmn/timeout","value":null})", {"cmn/timeout", "use delete"});
    expect_refused(R"({"call":"set","path":"@cmn/trustpoint/host","word":"a\nb"})", {"\"a\\x0ab\"", "character"});
    expect_refused(R"({"call":"set","path":"@cmn/trustpoint/host","word":")" + std::string(500, 'x') + "\"}",
                   {"too long", "1 to 127"});
    expect_refused(R"({"call":"set","path":"@cmn/trustpoint/host","value":"a\u0000b"})", {"a\\x00b"});
    expect_refused(R"({"call":"set","path":"@sshd/vrf/blue","word":"[null,\"a;b\"]"})", {"field 2 (ipv4_acl)", "a;b"});
}

TEST_F(control_change_calls_test, invalid_paths_are_refused_by_name) {
    expect_refused(R"({"call":"set","path":"@cmn/timeot","value":30})", {"cmn/timeot"});
    expect_refused(R"({"call":"set","path":"","value":30})", {});
    expect_refused(R"({"call":"set","path":"server/timeout","value":30})",
                   {"server/timeout: no such item", "cmn/timeout"});
    expect_refused(R"({"call":"load","items":{"cmn/timeout":30}})", {"cmn/timeout: not an absolute path"});
    expect_refused(R"({"call":"set","path":"/cfg/../etc/passwd","value":30})", {"/cfg/../etc/passwd"});
    for (const char* name : {"a b", "a/b", "a'b", "a\\\"b", "a;b", "$(touch /tmp/x)", "`x`", "-a", ".a", "..", "ü",
                             "a\\nb", "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"}) {
        expect_refused(R"({"call":"set","path":"@sshd/vrf/)" + std::string(name) + R"(","value":[]})", {"sshd/vrf"});
    }
}

TEST_F(control_change_calls_test, a_verifiers_refusal_contains_its_text) {
    handlers.verify_results["cmn/timeout"] = EINVAL;
    const control_json answer = ask(R"({"call":"set","path":"@cmn/timeout","value":45})");
    EXPECT_EQ(answer["result"], "refused");
    EXPECT_EQ(answer["path"], timeout_path);
    EXPECT_THAT(answer.value("message", ""), HasSubstr("the verifier says no"));
    EXPECT_EQ(stored(timeout_path), "none");
    EXPECT_THAT(audit.back(), AllOf(HasSubstr("result:=refused"), HasSubstr("the verifier says no")));
}

TEST_F(control_change_calls_test, items_that_are_not_in_force_are_named_in_the_answer_and_the_audit) {
    const enforcement_test::reset_at_end reset;
    handlers.apply_results["cmn/timeout"] = ENOSPC;
    handlers.in_apply = [] { enforcement_failed("server blue", "exit status 1"); };
    const control_json answer = ask(R"({"call":"set","path":"@cmn/timeout","value":45})");
    EXPECT_EQ(answer["result"], "not_in_force");
    EXPECT_EQ(
        control_json_text(answer["not_in_force"]),
        R"([{"subject":"server blue","reason":"exit status 1"},)"
        R"({"subject":"/cfg/gl/crypto/ssh/server/cmn/timeout","reason":"failed (0x1c); the agent's log says why"}])");
    EXPECT_EQ(answer["message"],
              "stored, not in force: server blue: exit status 1\n"
              "stored, not in force: /cfg/gl/crypto/ssh/server/cmn/timeout: failed (0x1c); the agent's log says why");
    EXPECT_EQ(answer["items"][0]["outcome"], "created");
    EXPECT_EQ(stored(timeout_path), "45");
    EXPECT_THAT(audit.back(),
                AllOf(HasSubstr("result:=not_in_force"), HasSubstr("created " + std::string(timeout_path)),
                      HasSubstr("stored, not in force: server blue: exit status 1")));
    EXPECT_EQ(result(R"({"call":"load","items":{"@cmn/timeout":45}})"), "not_in_force") << "still not in force";
    EXPECT_EQ(result(R"({"call":"load","items":{"@cmn/timeout":46},"check":true})"), "done");
    handlers = {};
    enforcement_restored("server blue");
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/timeout","value":46})"), "done");
}

TEST_F(control_change_calls_test, delete_removes_an_item_or_a_subtree) {
    ask(R"({"call":"load","items":{"@cmn/timeout":45,"@cmn/rate_limit":5,"@sshd/vrf/blue":[]}})");
    EXPECT_EQ(result(R"({"call":"delete","path":"@cmn/timeout"})"), "done");
    EXPECT_EQ(stored(timeout_path), "none");
    EXPECT_EQ(ask(R"({"call":"delete","path":"@cmn/timeout"})")["result"], "no_data");
    EXPECT_EQ(result(R"({"call":"delete","path":"@"})"), "done");
    EXPECT_EQ(data(R"({"call":"dump"})"), "{}");
}

TEST_F(control_change_calls_test, load_is_all_or_nothing) {
    EXPECT_EQ(result(R"({"call":"load","items":{"@cmn/timeout":45,"@cmn/rate_limit":5}})"), "done");
    EXPECT_EQ(result(R"({"call":"load","items":{"@cmn/timeout":null,"@cmn/rate_limit":6,"@sshd/vrf/blue":[]}})"),
              "done");
    EXPECT_EQ(
        data(R"({"call":"dump"})"),
        R"({"/cfg/gl/crypto/ssh/server/cmn/rate_limit":6,"/cfg/gl/crypto/ssh/server/sshd/vrf/blue":[null,null,null]})");
    take_calls();
    EXPECT_EQ(result(R"({"call":"load","items":{"@cmn/rate_limit":7,"@cmn/timeout":500}})"), "refused");
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(stored(rate_path), "6");
    EXPECT_EQ(result(R"({"call":"load","items":{}})"), "done");
}

TEST_F(control_change_calls_test, load_reports_all_errors_at_once) {
    EXPECT_THAT(
        message(R"({"call":"load","items":{"@cmn/timeout":500,"@cmn/rate_limit":5,"/nonsense":1,"@cmn/dscp":"x"}})"),
        AllOf(HasSubstr("500 is out of range"), HasSubstr("/nonsense"), HasSubstr("\"x\" is not a number")));
    std::string items;
    for (int number = 0; number < 100; number++) {
        items += (number == 0 ? "\"/nonsense" : ",\"/nonsense") + std::to_string(number) + "\":1";
    }
    const std::string many = message(R"({"call":"load","items":{)" + items + "}}");
    EXPECT_EQ(std::count(many.begin(), many.end(), '\n'), 20);
    EXPECT_THAT(many, HasSubstr("\n80 more items were refused"));
}

TEST_F(control_change_calls_test, a_check_verifies_and_changes_nothing) {
    const control_json answer = ask(R"({"call":"load","check":true,"items":{"@cmn/timeout":45}})");
    EXPECT_EQ(answer["result"], "done");
    EXPECT_EQ(answer["check"], true);
    EXPECT_EQ(answer["items"][0]["outcome"], "created");
    EXPECT_THAT(take_calls(), ElementsAre("verify 3 cmn/timeout - -> 45"));
    EXPECT_EQ(stored(timeout_path), "none");
    EXPECT_EQ(result(R"({"call":"load","check":true,"items":{"@cmn/timeout":500}})"), "refused");
    EXPECT_THAT(audit, IsEmpty()) << "a check is not audited";
}

TEST_F(control_change_calls_test, every_check_shows_old_and_new_values) {
    ask(R"({"call":"set","path":"timeout","value":30})");
    const std::string path = R"("path":"/cfg/gl/crypto/ssh/server/cmn/timeout")";
    const auto items = [this](const std::string& request) { return control_json_text(ask(request)["items"]); };
    EXPECT_EQ(items(R"({"call":"set","check":true,"path":"timeout","value":45})"),
              "[{" + path + R"(,"outcome":"changed","previous":30,"value":45}])");
    EXPECT_EQ(items(R"({"call":"delete","check":true,"path":"timeout"})"),
              "[{" + path + R"(,"outcome":"deleted","previous":30}])");
    EXPECT_EQ(items(R"({"call":"set","check":true,"path":"timeout","value":30})"),
              "[{" + path + R"(,"outcome":"unchanged"}])");
    EXPECT_EQ(stored(timeout_path), "30");
    EXPECT_EQ(result(R"({"call":"set","check":1,"path":"timeout","value":45})"), "usage");
}

TEST_F(control_change_calls_test, each_refused_item_of_a_load_is_named_with_its_reason) {
    const control_json answer = ask(R"({"call":"load","items":{"@cmn/timeout":500,"/nonsense":1}})");
    ASSERT_EQ(answer["refusals"].size(), 2U);
    EXPECT_EQ(answer["refusals"][0]["path"], timeout_path);
    EXPECT_THAT(answer["refusals"][0]["text"].get<std::string>(), HasSubstr("500 is out of range"));
    EXPECT_EQ(answer["refusals"][1]["path"], "/nonsense");
    EXPECT_FALSE(answer.contains("more_refusals"));
}

TEST_F(control_change_calls_test, ten_thousand_items_load_in_one_commit) {
    std::string items;
    for (int number = 0; number < 10'000; number++) {
        items += (number == 0 ? "\"@sshd/vrf/v" : ",\"@sshd/vrf/v") + std::to_string(number) + "\":[]";
    }
    EXPECT_EQ(ask(R"({"call":"load","items":{)" + items + "}}")["items"].size(), 10'000U);
    EXPECT_EQ(ask(R"({"call":"dump"})")["data"].size(), 10'000U);
    EXPECT_EQ(result(R"({"call":"delete","path":"@sshd/vrf/"})"), "done");
}

class control_store_failure_test : public control_change_calls_test {
  protected:
    void SetUp() override {
        memory = {};
        control_change_calls_test::SetUp();
        datastore_close();
        datastore_configure(&engine_in_memory, "memory");
        ASSERT_EQ(datastore_open(), PLATFORM_OK);
    }
};

TEST_F(control_store_failure_test, a_full_disk_is_a_failure_with_its_reason) {
    memory.operations = 0;
    memory.fail_at = 1;
    const control_json answer = ask(R"({"call":"set","path":"@cmn/timeout","value":45})");
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_THAT(answer.value("message", ""), HasSubstr("could not be stored"));
    EXPECT_THAT(audit.back(), HasSubstr("result:=failed"));
    memory.fail_at = 0;
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/timeout","value":45})"), "done");
}

}  // namespace
