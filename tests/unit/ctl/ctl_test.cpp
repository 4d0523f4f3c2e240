#include "ssh_cfg_ctl/ctl.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "fake_agent.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

struct outcome {
    int status;
    std::string output;
    std::string errors;
};

/// Runs the tool against an agent that answers with `answer`.
outcome run(const std::vector<std::string>& arguments, const std::string& answer = {}) {
    std::vector<std::string> all = {"--timeout", "5", "--socket", fake_agent::path()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    fake_agent agent(answer.empty() ? std::vector<std::string>() : std::vector<std::string>{answer});
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = ctl_run(all);
    return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

TEST(ctl_run, every_result_has_its_exit_status_and_its_text_on_standard_error) {
    const std::pair<const char*, int> rows[] = {{"failed", 1},  {"usage", 2},   {"unreachable", 3},
                                                {"no_data", 4}, {"refused", 5}, {"never heard of", 1}};
    for (const auto& [result, status] : rows) {
        const std::string answer = R"({"result":")" + std::string(result) + R"(","message":"so it is"})";
        const outcome plain = run({"get", "/a"}, answer);
        EXPECT_EQ(plain.status, status);
        EXPECT_EQ(plain.output, "");
        EXPECT_EQ(plain.errors, "ssh_cfg_ctl: so it is\n");
        const outcome json = run({"--json", "get", "/a"}, answer);
        EXPECT_EQ(json.status, status);
        EXPECT_EQ(json.output, answer + "\n");
        EXPECT_EQ(json.errors, "ssh_cfg_ctl: so it is\n");
    }
}

TEST(ctl_run, progress_comes_before_the_answer_where_it_was_asked_for) {
    const std::string report = R"({"progress":{"work":"applying /a","done":1,"total":2,"waiting":false}})";
    const std::string answer = R"({"result":"done","items":[]})";
    const outcome lines = run({"--progress", "set", "/a", "1"}, report + "\n" + answer);
    EXPECT_EQ(lines.status, 0);
    EXPECT_EQ(lines.errors, "ssh_cfg_ctl: 1 of 2: applying /a\n");
    const outcome json = run({"--json", "--progress", "set", "/a", "1"}, report + "\n" + answer);
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(json.output, report + "\n" + answer + "\n");
    EXPECT_EQ(json.errors, "");
    EXPECT_EQ(run({"set", "/a", "1"}, report + "\n" + answer).errors, "") << "no terminal";
}

TEST(ctl_run, data_is_printed_as_text_or_json) {
    const std::string answer = R"({"result":"done","data":[{"name":"default","blocked":true}]})";
    const outcome plain = run({"vrf", "list"}, answer);
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.output, "name     blocked\ndefault  yes\n");
    const outcome json = run({"--json", "vrf", "list"}, answer);
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(json.output, "[{\"name\":\"default\",\"blocked\":true}]\n");
}

TEST(ctl_run, a_change_is_silent_unless_json_is_wanted) {
    const std::string answer = R"({"result":"done","items":[{"path":"/a","outcome":"created"}]})";
    EXPECT_EQ(run({"set", "/a", "1"}, answer).output, "");
    EXPECT_EQ(run({"--json", "set", "/a", "1"}, answer).output, answer + "\n");
    EXPECT_EQ(run({"debug", "cfg-agent", "on"}, R"({"result":"done"})").output, "");
}

TEST(ctl_run, warnings_go_to_standard_error_and_the_change_is_made) {
    const std::string answer = R"({"result":"done","items":[],"warnings":["VRF blue: open","VRF red:\u001b open"]})";
    const std::string errors = "ssh_cfg_ctl: warning: VRF blue: open\nssh_cfg_ctl: warning: VRF red:\\x1b open\n";
    const outcome plain = run({"set", "/a", "1"}, answer);
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.output, "");
    EXPECT_EQ(plain.errors, errors);
    const outcome json = run({"--json", "set", "/a", "1"}, answer);
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(json.output, answer + "\n");
    EXPECT_EQ(json.errors, errors);
}

TEST(ctl_run, stored_but_not_in_force_has_its_own_exit_status) {
    const std::string answer =
        R"({"result":"not_in_force","check":false,"items":[{"path":"/a","outcome":"changed"}],)"
        R"("message":"stored, not in force: server mgmt: exit status 1\nstored, not in force: file /b: no space",)"
        R"("not_in_force":[{"subject":"server mgmt","reason":"exit status 1"},{"subject":"file /b","reason":"no space"}]})";
    const std::string errors =
        "ssh_cfg_ctl: stored, not in force: server mgmt: exit status 1\n"
        "ssh_cfg_ctl: stored, not in force: file /b: no space\n";
    const outcome plain = run({"set", "/a", "1"}, answer);
    EXPECT_EQ(plain.status, 6);
    EXPECT_EQ(plain.output, "");
    EXPECT_EQ(plain.errors, errors);
    const outcome json = run({"--json", "set", "/a", "1"}, answer);
    EXPECT_EQ(json.status, 6);
    EXPECT_EQ(json.output, answer + "\n");
    EXPECT_EQ(json.errors, errors);
    const std::string file = testing::TempDir() + "ctl_run_items.json";
    std::ofstream(file) << R"({"/a":1})";
    const outcome load = run({"load", file}, answer);
    EXPECT_EQ(load.status, 6);
    EXPECT_EQ(load.output, "1 changed\n");
    EXPECT_EQ(load.errors, errors);
}

TEST(ctl_run, verify_prints_the_differences_and_fails) {
    EXPECT_EQ(run({"verify"}, R"({"result":"done","data":[]})").output, "no differences\n");
    const std::string data =
        R"([{"subject":"file /a","text":"Ciphers"},{"subject":"server mgmt","text":"is\u001b[2J"}])";
    const std::string answer = R"({"result":"failed","message":"2 differences","data":)" + data + "}";
    const outcome plain = run({"verify"}, answer);
    EXPECT_EQ(plain.status, 1);
    EXPECT_EQ(plain.output, "file /a: Ciphers\nserver mgmt: is\\x1b[2J\n");
    EXPECT_EQ(plain.errors, "ssh_cfg_ctl: 2 differences\n");
    const outcome json = run({"--json", "verify"}, answer);
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(json.output, data + "\n");
}

TEST(ctl_run, repair_prints_what_it_repaired) {
    EXPECT_EQ(run({"repair"}, R"({"result":"done","data":{"repaired":[],"remaining":[]}})").output,
              "nothing to repair\n");
    const outcome rest = run({"repair"}, R"({"result":"failed","message":"1 difference could not be repaired",)"
                                         R"("data":{"repaired":[{"subject":"file /a","text":"Ciphers"}],)"
                                         R"("remaining":[{"subject":"unit red","text":"failed"}]}})");
    EXPECT_EQ(rest.status, 1);
    EXPECT_EQ(rest.output, "repaired: file /a: Ciphers\nnot repaired: unit red: failed\n");
    EXPECT_EQ(rest.errors, "ssh_cfg_ctl: 1 difference could not be repaired\n");
}

TEST(ctl_run, each_line_of_a_refusal_is_a_line_and_safe_for_a_terminal) {
    EXPECT_EQ(run({"get", "/a"}, R"({"result":"refused","message":"one\ntwo\u001b[2J"})").errors,
              "ssh_cfg_ctl: one\nssh_cfg_ctl: two\\x1b[2J\n");
}

TEST(ctl_run, an_answer_with_members_of_the_wrong_type_is_a_failure) {
    EXPECT_EQ(run({"get", "/a"}, R"({"result":5})").status, 1);
    EXPECT_EQ(run({"load", "/dev/null"}, R"({"result":"done","items":7})").status, 5) << "an empty file is not JSON";
    EXPECT_EQ(run({"trace", "error"}, R"({"result":"done","data":[{"point":"x"}]})").status, 1);
}

/// Runs the tool against an agent that gives these answers in turn; `requests` receives what the tool sent.
outcome run_on(const std::vector<std::string>& answers, std::vector<std::string>& requests) {
    fake_agent agent(answers);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = ctl_run({"--timeout", "5", "--socket", fake_agent::path(), "reload", "--timeout", "2"});
    requests = agent.requests;
    return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

TEST(ctl_run, sends_requests_until_the_last_answer) {
    const std::string waiting = R"({"result":"done","next":{"call":"reload_state","number":7}})";
    std::vector<std::string> requests;
    EXPECT_EQ(run_on({waiting, waiting, R"({"result":"done"})"}, requests).status, 0);
    EXPECT_THAT(requests, ElementsAre(R"({"call":"reload","timeout":2})", R"({"call":"reload_state","number":7})",
                                      R"({"call":"reload_state","number":7})"));
    const outcome failed = run_on({waiting, R"({"result":"failed","message":"not acknowledged"})"}, requests);
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.errors, "ssh_cfg_ctl: not acknowledged\n");
    EXPECT_EQ(run_on({waiting, ""}, requests).status, 3);
}

TEST(ctl_run, usage_errors_show_the_usage) {
    const outcome unknown = run({"stauts"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_THAT(unknown.errors, HasSubstr("unknown call 'stauts'; did you mean 'status'?"));
    EXPECT_THAT(unknown.errors, HasSubstr("Try 'ssh_cfg_ctl --help'."));
    const outcome missing = run({"set"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_THAT(missing.errors, HasSubstr("usage: ssh_cfg_ctl [OPTION...] set [--check] [--note TEXT] PATH [VALUE]"));
    const outcome json = run({"--json", "set"});
    EXPECT_EQ(json.status, 2);
    EXPECT_THAT(json.output, StartsWith(R"({"result":"usage","message":"usage: )"));
    EXPECT_EQ(run({}).status, 2);
    EXPECT_EQ(run({"--nonsense"}).status, 2);
}

TEST(ctl_run, prints_the_summary_without_arguments) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(ctl_run({}), 0);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(output, run({"--help"}).output);
}

TEST(ctl_run, help_explains_calls_without_an_agent_and_items_with_it) {
    EXPECT_EQ(run({"help"}).output, run({"--help"}).output);
    EXPECT_THAT(run({"help", "acl", "set"}).output, StartsWith("usage: ssh_cfg_ctl [OPTION...] acl set"));
    EXPECT_EQ(run({"acl", "--help"}).output, run({"help", "acl"}).output);
    EXPECT_THAT(run({"--json", "help", "get"}).output, StartsWith(R"([{"name":"get")"));
    const outcome item = run({"help", "timeout"}, R"({"result":"done","data":[{"path":"/a","meaning":"A"}]})");
    EXPECT_EQ(item.status, 0);
    EXPECT_EQ(item.output, "/a\nA\n\n");
    EXPECT_EQ(run({"help", "x"}, R"({"result":"no_data","message":"x: nothing"})").status, 4);
}

TEST(ctl_run, complete_prints_candidates) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(ctl_run({"complete", "--socket", "/nowhere", "acl", "sh"}), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "show\n");
}

TEST(ctl_run, help_names_every_call) {
    const outcome help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* call :
         {"set", "delete", "load", "get", "list", "dump", "show", "vrf", "debug", "trace", "watch", "status"}) {
        EXPECT_THAT(help.output, HasSubstr("\n  " + std::string(call) + " ")) << call;
    }
    EXPECT_THAT(run({"--version"}).output, testing::MatchesRegex("ssh_cfg_ctl [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(ctl_run, output_that_cannot_be_written_is_a_failure) {
    fake_agent agent({R"({"result":"done","data":{"/a":1}})"});
    fflush(stdout);
    const int kept = dup(STDOUT_FILENO);
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    dup2(full, STDOUT_FILENO);
    const int status = ctl_run({"--socket", fake_agent::path(), "dump"});
    dup2(kept, STDOUT_FILENO);
    close(full);
    close(kept);
    clearerr(stdout);
    EXPECT_EQ(status, 1);
}

}  // namespace
