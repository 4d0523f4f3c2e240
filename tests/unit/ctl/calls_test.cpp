#include "ssh_cfg_ctl/calls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace {

using testing::HasSubstr;

ctl_request made(const char* call, const std::vector<std::string>& arguments) {
    const ctl_call_row* row = ctl_find_call(call);
    EXPECT_NE(row, nullptr) << call;
    return ctl_make_request(*row, arguments);
}

std::string request(const char* call, const std::vector<std::string>& arguments) {
    const ctl_request made_request = made(call, arguments);
    EXPECT_TRUE(made_request.problem.is_null()) << made_request.problem;
    return control_json_text(made_request.document);
}

std::string text(const char* call, const char* answer) {
    std::string error;
    return ctl_find_call(call)->text(control_json_parse(answer, error).value());
}

TEST(ctl_calls, make_the_requests_of_the_control_protocol) {
    EXPECT_EQ(request("set", {"/a", "[null,1]"}), R"({"call":"set","path":"/a","word":"[null,1]"})");
    EXPECT_EQ(request("delete", {"/a"}), R"({"call":"delete","path":"/a"})");
    EXPECT_EQ(request("get", {"/a"}), R"({"call":"get","path":"/a"})");
    EXPECT_EQ(request("delete", {"--absent-ok", "/a"}), R"({"call":"delete","path":"/a","absent_ok":true})");
    EXPECT_EQ(request("acl", {"delete", "--absent-ok", "ipv4", "ops"}),
              R"({"call":"acl_delete","family":"ipv4","name":"ops","absent_ok":true})");
    EXPECT_EQ(request("key", {"delete", "ann", "--absent-ok"}),
              R"({"call":"key_delete","user":"ann","absent_ok":true})");
    EXPECT_EQ(request("set", {"vrf/a"}), R"({"call":"set","path":"vrf/a"})");
    EXPECT_EQ(request("list", {"/"}), R"({"call":"list","path":"/"})");
    EXPECT_EQ(request("list", {"--all", "/"}), R"({"call":"list","path":"/","all":true})");
    EXPECT_EQ(request("show", {"/oper"}), R"({"call":"show","path":"/oper"})");
    EXPECT_EQ(request("dump", {}), R"({"call":"dump"})");
    EXPECT_EQ(request("status", {}), R"({"call":"status"})");
    EXPECT_EQ(request("status", {"--check"}), R"({"call":"status","check":true})");
    EXPECT_EQ(request("vrf", {"list"}), R"({"call":"vrf_list"})");
    EXPECT_EQ(request("vrf", {"unblock", "red"}), R"({"call":"vrf_unblock","name":"red"})");
    EXPECT_EQ(request("debug", {}), R"({"call":"debug"})");
    EXPECT_EQ(request("debug", {"cfg-agent", "on"}), R"({"call":"debug","flag":"cfg-agent","on":true})");
    EXPECT_EQ(request("debug", {"cfg-agent", "off"}), R"({"call":"debug","flag":"cfg-agent","on":false})");
    EXPECT_EQ(request("trace", {"error"}), R"({"call":"trace","buffer":"error"})");
    EXPECT_EQ(request("key", {"list"}), R"({"call":"key_list"})");
    EXPECT_EQ(request("key", {"list", "alice"}), R"({"call":"key_list","user":"alice"})");
    EXPECT_EQ(request("key", {"export", "alice"}), R"({"call":"key_export","user":"alice"})");
    EXPECT_EQ(request("key", {"export", "alice", "SHA256:x"}),
              R"({"call":"key_export","user":"alice","fingerprint":"SHA256:x"})");
    EXPECT_EQ(request("key", {"delete", "alice", "SHA256:x"}),
              R"({"call":"key_delete","user":"alice","fingerprint":"SHA256:x"})");
    EXPECT_EQ(request("key", {"delete", "alice"}), R"({"call":"key_delete","user":"alice"})");
    EXPECT_EQ(request("verify", {}), R"({"call":"verify"})");
    EXPECT_EQ(request("repair", {}), R"({"call":"repair"})");
    EXPECT_EQ(request("sessions", {}), R"({"call":"sessions"})");
    EXPECT_EQ(request("session", {"end", "12"}), R"({"call":"session_end","id":12})");
    EXPECT_EQ(request("session", {"end", "--pid", "4711"}), R"({"call":"session_end","pid":4711})");
    EXPECT_EQ(request("session", {"end", "--user", "a"}), R"({"call":"session_end","user":"a"})");
    EXPECT_EQ(request("session", {"end", "--vrf", "red"}), R"({"call":"session_end","vrf":"red"})");
    EXPECT_EQ(request("reload", {}), R"({"call":"reload"})");
    EXPECT_EQ(request("reload", {"--timeout", "3600"}), R"({"call":"reload","timeout":3600})");
}

TEST(ctl_calls, acl_set_sends_lines_or_entries) {
    const std::string file = testing::TempDir() + "ctl_calls_test.acl";
    std::ofstream(file) << "10 permit tcp any any\n# end\n";
    EXPECT_EQ(request("acl", {"set", "ipv4", "ops", file}),
              R"({"call":"acl_set","family":"ipv4","name":"ops","lines":["10 permit tcp any any","# end"]})");
    std::ofstream(file, std::ios::trunc) << R"( [{"Grant":"permit"}])";
    EXPECT_EQ(request("acl", {"set", "ipv6", "ops", file}),
              R"({"call":"acl_set","family":"ipv6","name":"ops","entries":[{"Grant":"permit"}]})");
    std::ofstream(file, std::ios::trunc) << "";
    const std::string empty = R"({"call":"acl_set","family":"ipv4","name":"ops","empty":true,"lines":[]})";
    EXPECT_EQ(request("acl", {"set", "--empty", "ipv4", "ops", file}), empty);
    EXPECT_EQ(request("acl", {"set", "ipv4", "ops", file, "--empty"}), empty);
    EXPECT_EQ(made("acl", {"delete", "--empty", "ipv4", "ops"}).problem["result"], "usage");
    EXPECT_EQ(made("acl", {"set", "--empty", "ipv4", "ops"}).problem["result"], "usage");
}

TEST(ctl_calls, an_unblocked_vrf_is_answered_with_the_opened_services) {
    EXPECT_EQ(text("vrf", R"({"vrf":"red","data":["ssh ipv4","ssh ipv6"]})"),
              "opened in VRF red: ssh ipv4, ssh ipv6\n");
    EXPECT_EQ(text("vrf", R"({"vrf":"red","data":[]})"), "nothing is blocked in VRF red\n");
    EXPECT_EQ(text("vrf", R"({"data":[{"name":"red","blocked":false,"closed":["ssh ipv4","ssh ipv6"]}]})"),
              "name  blocked  closed\nred   no       ssh ipv4, ssh ipv6\n");
}

TEST(ctl_calls, key_import_sends_the_content_of_the_file) {
    const std::string file = testing::TempDir() + "ctl_calls_test.pub";
    std::ofstream(file) << "# mine\nssh-rsa AAAA me\n";
    EXPECT_EQ(request("key", {"import", "alice", file}),
              R"({"call":"key_import","user":"alice","text":"# mine\nssh-rsa AAAA me\n"})");
    std::ofstream(file, std::ios::trunc) << "ssh-rsa \xff";
    EXPECT_THAT(made("key", {"import", "alice", file}).problem["message"].get<std::string>(),
                HasSubstr("not valid UTF-8"));
    std::ofstream(file) << "x";
    EXPECT_EQ(request("key", {"import", "--replace", "alice", file}),
              R"({"call":"key_import","user":"alice","text":"x","replace":true})");
    EXPECT_THAT(made("key", {"import", "alice", "/nowhere"}).problem["message"].get<std::string>(),
                HasSubstr("/nowhere"));
}

TEST(ctl_calls, reload_checks_its_timeout) {
    for (const char* timeout : {"0", "3601", "-1", "x", "1s", "", "99999999999"}) {
        const ctl_request wrong = made("reload", {"--timeout", timeout});
        EXPECT_EQ(wrong.problem["result"], "usage") << timeout;
        EXPECT_THAT(wrong.problem["message"].get<std::string>(), HasSubstr("expected 1 to 3600 seconds, not '"))
            << timeout;
    }
}

TEST(ctl_calls, keys_are_a_table) {
    EXPECT_EQ(text("key", R"({"result":"done","data":[]})"), "no keys\n");
    EXPECT_THAT(text("key", R"({"result":"done","data":[{"user":"alice","bits":2048}]})"), HasSubstr("alice"));
    EXPECT_EQ(text("key", R"({"result":"done"})"), "");
}

TEST(ctl_calls, load_accepts_its_option_before_or_after_the_file) {
    const std::string file = testing::TempDir() + "ctl_calls_test.json";
    std::ofstream(file) << R"({"/a": null})";
    EXPECT_EQ(request("load", {file}), R"({"call":"load","check":false,"items":{"/a":null}})");
    EXPECT_EQ(request("load", {file, "--absent-ok"}),
              R"({"call":"load","check":false,"absent_ok":true,"items":{"/a":null}})");
    EXPECT_EQ(request("load", {"--check", file}), R"({"call":"load","check":true,"items":{"/a":null}})");
    EXPECT_EQ(request("load", {file, "--check"}), R"({"call":"load","check":true,"items":{"/a":null}})");
    std::ofstream(file, std::ios::trunc) << "[1]";
    EXPECT_THAT(made("load", {file}).problem["message"].get<std::string>(), HasSubstr("expected one JSON object"));
    EXPECT_EQ(made("load", {file}).problem["result"], "refused");
}

TEST(ctl_calls, changes_take_a_note_and_load_its_conditions) {
    const std::string file = testing::TempDir() + "ctl_calls_conditions.json";
    std::ofstream(file) << R"({"/a": 1})";
    EXPECT_EQ(request("set", {"--note", "why", "/a", "1"}), R"({"call":"set","note":"why","path":"/a","word":"1"})");
    EXPECT_EQ(request("delete", {"/a", "--note=why"}), R"({"call":"delete","note":"why","path":"/a"})");
    EXPECT_EQ(request("load", {"--replace", "--confirm", "5", file, "--note", "why"}),
              R"({"call":"load","check":false,"replace":true,"confirm":5,"note":"why","items":{"/a":1}})");
    EXPECT_EQ(made("load", {"--confirm", "1441", file}).problem["message"],
              "--confirm: expected 1 to 1440 minutes, not '1441'");
    EXPECT_EQ(request("rollback", {"--check", "41"}), R"({"call":"rollback","check":true,"number":41})");
    EXPECT_EQ(request("diff", {}), R"({"call":"diff"})");
    EXPECT_EQ(request("diff", {"3", "7"}), R"({"call":"diff","from":3,"to":7})");
    EXPECT_EQ(request("diff", {file}), R"({"call":"diff","items":{"/a":1}})");
}

TEST(ctl_calls, wrong_arguments_are_a_usage_error_without_a_message) {
    const std::pair<const char*, std::vector<std::string>> rows[] = {
        {"set", {}},
        {"set", {"/a", "1", "2"}},
        {"delete", {}},
        {"get", {}},
        {"get", {"/a", "/b"}},
        {"acl", {"show", "--absent-ok", "ipv4", "ops"}},
        {"key", {"list", "--absent-ok"}},
        {"list", {}},
        {"list", {"--all"}},
        {"list", {"/", "--all"}},
        {"dump", {"x"}},
        {"status", {"x"}},
        {"vrf", {}},
        {"vrf", {"all"}},
        {"vrf", {"list", "x"}},
        {"debug", {"cfg-agent"}},
        {"debug", {"x", "yes"}},
        {"trace", {}},
        {"trace", {"nonsense"}},
        {"load", {}},
        {"load", {"a", "b"}},
        {"load", {"--chek", "a"}},
        {"show", {}},
        {"set", {"--note", "why"}},
        {"rollback", {}},
        {"rollback", {"x"}},
        {"rollback", {"1", "2"}},
        {"diff", {"1", "x"}},
        {"diff", {"1", "2", "3"}},
        {"confirm", {"5"}},
        {"history", {"5"}},
        {"key", {}},
        {"key", {"list", "x", "y"}},
        {"key", {"list", "--replace"}},
        {"key", {"export"}},
        {"key", {"export", "alice", "SHA256:x", "y"}},
        {"key", {"export", "alice", "--absent-ok"}},
        {"key", {"delete", "alice", "SHA256:x", "y"}},
        {"key", {"delete", "alice", "--replace"}},
        {"key", {"import", "alice"}},
        {"key", {"delete"}},
        {"key", {"remove", "alice"}},
        {"sessions", {"x"}},
        {"session", {}},
        {"session", {"end"}},
        {"session", {"end", "--user"}},
        {"session", {"end", "--all", "x"}},
        {"session", {"end", "12", "13"}},
        {"reload", {"--timeout"}},
        {"verify", {"mgmt"}},
        {"repair", {"--all"}},
        {"reload", {"now"}},
        {"reload", {"--timeout", "3", "x"}},
    };
    for (const auto& [call, arguments] : rows) {
        const ctl_request wrong = made(call, arguments);
        EXPECT_EQ(wrong.problem["result"], "usage") << call;
        EXPECT_FALSE(wrong.problem.contains("message")) << call;
    }
}

TEST(ctl_calls, invalid_utf_8_is_refused_before_json_alters_it) {
    const ctl_request refused = made("set", {"/a", "b\xff"});
    EXPECT_EQ(refused.problem["result"], "refused");
    EXPECT_EQ(refused.problem["message"], "\"b\\xff\" is not valid UTF-8");
}

TEST(ctl_calls, an_unknown_call_has_no_row) {
    EXPECT_EQ(ctl_find_call("sett"), nullptr);
    EXPECT_EQ(ctl_find_call(""), nullptr);
}

TEST(ctl_texts, values_are_shown_in_the_notation_of_the_input) {
    EXPECT_EQ(text("get", R"({"data":30})"), "30\n");
    EXPECT_EQ(text("get", R"({"data":"corp-ca"})"), "\"corp-ca\"\n");
    EXPECT_EQ(text("get", R"({"data":[null,"a",true]})"), "[null,\"a\",true]\n");
}

TEST(ctl_calls, single_changes_can_be_checked) {
    EXPECT_EQ(request("set", {"--check", "timeout", "45"}),
              R"({"call":"set","check":true,"path":"timeout","word":"45"})");
    EXPECT_EQ(request("delete", {"timeout", "--check"}), R"({"call":"delete","check":true,"path":"timeout"})");
    EXPECT_EQ(made("acl", {"show", "--check", "ipv4", "mgmt"}).problem["result"], "usage");
}

TEST(ctl_texts, names_are_printed_one_per_line) {
    EXPECT_EQ(text("list", R"({"data":["a","b"]})"), "a\nb\n");
}

TEST(ctl_texts, a_change_is_silent_and_a_load_prints_a_count) {
    EXPECT_EQ(text("set", R"({"items":[{"path":"/a","outcome":"created"}]})"), "");
    EXPECT_EQ(text("set", R"({"items":[{"path":"/x/a","outcome":"changed"}],"path":"/x/a"})"), "changed  /x/a\n");
    EXPECT_EQ(text("delete", R"({"items":[{"path":"/x/a","outcome":"deleted"}],"path":"/x/"})"), "deleted  /x/a\n");
    EXPECT_EQ(
        text("load", R"({"check":false,"items":[{"path":"/a","outcome":"created"},{"path":"/b","outcome":"unchanged"},
                               {"path":"/c","outcome":"created"}]})"),
        "2 created, 1 unchanged\n");
    EXPECT_EQ(text("load", R"({"items":[]})"), "nothing to change\n");
}

TEST(ctl_texts, a_check_lists_each_change) {
    EXPECT_EQ(text("load",
                   R"({"check":true,"items":[{"path":"/a","outcome":"created"},{"path":"/b","outcome":"unchanged"}]})"),
              "created  /a\n1 created, 1 unchanged (checked only, nothing stored)\n");
}

TEST(ctl_texts, a_check_shows_values_and_lines) {
    EXPECT_EQ(text("set", R"({"check":true,"items":[{"path":"/a","outcome":"changed","previous":30,"value":45}],
                   "rehearsal":{"files":[{"path":"/f","outcome":"changed","lines":["-x 30","+x 45"]},
                                         {"path":"/g","outcome":"changed","lines":["-x 30","+x 45"]},
                                         {"path":"/rules","outcome":"created","lines":[]}],
                                "servers":[{"vrf":"red","outcome":"restarted"}],"vrfs":["red"]}})"),
              "changed  /a\n    - 30\n    + 45\n"
              "file    changed   /f\nfile    changed   /g\n    -x 30\n    +x 45\n"
              "file    created   /rules\nserver  restarted red\nVRFs concerned: red\n"
              "1 changed (checked only, nothing stored)\n");
    EXPECT_EQ(text("delete", R"({"check":true,"items":[{"path":"/a","outcome":"deleted","previous":"x"}]})"),
              "deleted  /a\n    - \"x\"\n1 deleted (checked only, nothing stored)\n");
    EXPECT_EQ(text("acl", R"({"check":true,"changed":true,"entries":2,"list":{"family":"ipv4","name":"mgmt",
                   "outcome":"changed","lines":["-10 permit tcp any any","+10 deny tcp any any"]},
                   "rules":[{"vrf":"red","service":"ssh"}]})"),
              "list    changed  ipv4 mgmt\n    -10 permit tcp any any\n    +10 deny tcp any any\n"
              "rules   replaced  red ssh\n2 entries (checked only, nothing stored)\n");
}

TEST(ctl_texts, a_changed_list_is_answered_with_the_number_of_its_entries) {
    EXPECT_EQ(text("acl", R"({"entries":1,"changed":true})"), "1 entry stored\n");
    EXPECT_EQ(text("acl", R"({"entries":2,"changed":false})"), "2 entries, unchanged\n");
    EXPECT_EQ(
        text("acl", R"({"check":true,"entries":1,"list":{"family":"ipv4","name":"a","outcome":"created","lines":[]}})"),
        "list    created  ipv4 a\n1 entry (checked only, nothing stored)\n");
}

TEST(ctl_texts, a_commit_on_trial_says_how_to_confirm_it) {
    EXPECT_EQ(text("load", R"({"items":[{"path":"/a","outcome":"created"}],"commit":42,"confirm_within":300})"),
              "1 created\ncommit 42 is undone unless 'ssh_cfg_ctl confirm' follows within 5 minutes\n");
    EXPECT_EQ(text("confirm", R"({"result":"done","commit":42})"), "commit 42 confirmed\n");
}

TEST(ctl_texts, history_and_differences_are_shown_in_lines) {
    EXPECT_EQ(text("history", R"({"data":[{"number":2,"time":"T","user":"alice","uid":7,"call":"load","changes":3,)"
                              R"("note":"\u001b[1m"}]})"),
              "number  time  user   call  changes  note\n2       T     alice  load  3        \\x1b[1m\n");
    EXPECT_EQ(text("history", R"({"data":[]})"), "no commits\n");
    EXPECT_EQ(text("diff", R"({"data":[{"path":"/a","previous":30,"value":[null,"b"]},{"path":"/c","value":1}]})"),
              "- /a: 30\n+ /a: [null,\"b\"]\n+ /c: 1\n");
    EXPECT_EQ(text("diff", R"({"data":[]})"), "no differences\n");
}

TEST(ctl_texts, a_traced_status_is_shown_with_its_text) {
    EXPECT_EQ(text("trace", R"({"data":[{"time":"T","point":1,"name":"vrf.start","error":"No such file",)"
                            R"("arguments":{"vrf":"red","status":2}}]})"),
              "T  vrf.start  vrf \"red\", status 2 (No such file)\n");
    EXPECT_EQ(text("trace", R"({"data":[{"time":"T","point":1,"name":"acl.bind","error":"absent",)"
                            R"("arguments":{"status":1082229248}}]})"),
              "T  acl.bind  status 0x40818200 (absent)\n");
}

TEST(ctl_texts, traces_are_printed_as_lines) {
    EXPECT_EQ(text("trace", R"({"data":[{"time":"T","point":1026,"name":"appliers.timeout",)"
                            R"("arguments":{"event":3,"value":"a\nb"}}]})"),
              "T  appliers.timeout  event 3, value \"a\\x0ab\"\n");
    EXPECT_EQ(text("trace", R"({"data":[{"time":"T","point":18,"name":null,"arguments":{"1":-1}}]})"),
              "T  0x12  1 -1\n");
    EXPECT_EQ(text("trace", R"({"data":[{"time":"T","point":258,"name":"core.ready","arguments":{}}]})"),
              "T  core.ready\n");
    EXPECT_EQ(text("trace", R"({"data":[]})"), "no entries\n");
}

TEST(ctl_texts, the_status_names_what_is_not_in_force) {
    EXPECT_EQ(
        text("status", R"({"data":{"pid":5,"vrfs":[],"not_carried_out":[{"path":"/cfg/a","reason":"no \u001bway"}]}})"),
        text("status", R"({"data":{"pid":5,"vrfs":[]}})") +
            "\nStored, not carried out on this machine:\n/cfg/a: no \\x1bway\n");
    EXPECT_EQ(text("status", R"({"data":{"pid":5,"vrfs":[],"not_carried_out":[]}})"),
              text("status", R"({"data":{"pid":5,"vrfs":[]}})"));
}

}  // namespace
