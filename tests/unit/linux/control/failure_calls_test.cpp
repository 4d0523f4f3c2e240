#include <fstream>

#include "linux/control/failure_reading.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/platform_test_support.h"

namespace {

constexpr char program[] = "/tmp/journalctl";

constexpr char entry[] =
    R"({"__REALTIME_TIMESTAMP":"1763900000123456","SSH_CFG_EVENT":"login-failed","SSH_CFG_VRF":"red",)"
    R"("SSH_CFG_USER":"operator","SSH_CFG_SOURCE":"10.0.0.7","SSH_CFG_PORT":"40000","SSH_CFG_METHOD":"publickey",)"
    R"("SSH_CFG_REASON":"key not accepted","SSH_CFG_KEY":"RSA SHA256:a","SSH_CFG_REFUSED":"1","SYSLOG_PID":"7",)"
    R"("BINARY":[1,2],"MESSAGE":null})";

constexpr char shown_entry[] =
    R"({"time":"2025-11-23T12:13:20Z","event":"login-failed","vrf":"red","user":"operator","address":"10.0.0.7",)"
    R"("port":40000,"method":"publickey","reason":"key not accepted","detail":null,"key":"RSA SHA256:a","refused":1,)"
    R"("pid":7})";

class control_failure_calls_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        failure_reading_reset(program, 10);
    }
    void TearDown() override {
        failure_reading_reset();
        calls_test::TearDown();
    }

    /// What stands in for journalctl.
    static void install(const std::string& commands) {
        std::ofstream(program) << "#!/bin/sh\n" << commands << '\n';
        ASSERT_EQ(chmod(program, 0755), 0);
    }

    /// Asks again until the answer is final, as the tool does.
    control_json final_answer(const std::string& request) {
        control_json answer = ask(request);
        while (answer.contains("next")) {
            usleep(10000);
            answer = control_call(control_json(answer["next"]), peer);
        }
        return answer;
    }

    std::string final_data(const std::string& request) { return control_json_text(final_answer(request)["data"]); }
    std::string final_message(const std::string& request) { return final_answer(request).value("message", ""); }
};

}  // namespace

TEST_F(control_failure_calls_test, shows_what_the_journal_has) {
    install(std::string("cat <<'END'\n") + entry + "\nno JSON\n[1]\n" + entry + "\nEND");
    EXPECT_EQ(final_data(R"({"call":"failures"})"), std::string("[") + shown_entry + "," + shown_entry + "]");
}

TEST_F(control_failure_calls_test, asks_for_roots_entries_only) {
    install("echo \"$@\" >/tmp/arguments");
    EXPECT_EQ(final_data(R"({"call":"failures","lines":7,"vrf":"red; reboot"})"), "[]");
    std::string arguments;
    std::getline(std::ifstream("/tmp/arguments"), arguments);
    EXPECT_EQ(arguments,
              "--quiet --no-pager --output=json --lines=7 _UID=0 MESSAGE_ID=57bf9bef7e7f4f33af0ee093e0c74180 "
              "SSH_CFG_VRF=red; reboot");
}

TEST_F(control_failure_calls_test, does_not_wait_for_a_slow_journal) {
    install("while [ ! -e /tmp/go ]; do sleep 0.01; done; exec cat /tmp/entry");
    std::ofstream("/tmp/entry") << entry << '\n';
    const control_json first = ask(R"({"call":"failures"})");
    ASSERT_TRUE(first.contains("next"));
    // The same question shares the reading, another one has to wait for its turn.
    const control_json same = ask(R"({"call":"failures"})");
    EXPECT_EQ(control_json_text(same["next"]), control_json_text(first["next"]));
    const control_json other = ask(R"({"call":"failures","vrf":"blue"})");
    EXPECT_EQ(other["next"]["number"], 0);
    std::ofstream("/tmp/go");
    control_json answer = first;
    while (answer.contains("next")) {
        answer = control_call(control_json(answer["next"]), peer);
    }
    EXPECT_EQ(control_json_text(answer["data"]), std::string("[") + shown_entry + "]");
    EXPECT_EQ(final_answer(control_json_text(same["next"]))["result"], "done") << "reads again";
    EXPECT_EQ(final_answer(control_json_text(other["next"]))["result"], "done");
}

TEST_F(control_failure_calls_test, an_abandoned_reading_keeps_nobody_waiting) {
    install("sleep 0.1; cat /tmp/entry");
    std::ofstream("/tmp/entry") << entry << '\n';
    ASSERT_TRUE(ask(R"({"call":"failures","lines":1})").contains("next"));
    EXPECT_EQ(final_answer(R"({"call":"failures","vrf":"red"})")["data"].size(), 1U);
}

TEST_F(control_failure_calls_test, ends_a_program_that_hangs) {
    failure_reading_reset(program, 1);
    install("exec sleep 1000");
    EXPECT_EQ(final_message(R"({"call":"failures"})"),
              "the failed logins cannot be read: journalctl did not end within 1 seconds");
}

TEST_F(control_failure_calls_test, reports_failures) {
    install("exit 1");
    EXPECT_EQ(final_message(R"({"call":"failures"})"), "the failed logins cannot be read: journalctl has failed");
    install("yes");
    EXPECT_EQ(final_message(R"({"call":"failures"})"), "the failed logins cannot be read: journalctl has failed");
    unlink(program);
    EXPECT_EQ(final_message(R"({"call":"failures"})"), "the failed logins cannot be read: journalctl has failed");
}

TEST_F(control_failure_calls_test, refuses_wrong_members) {
    for (const char* members : {R"("lines":0)", R"("lines":1001)", R"("lines":"7")", R"("lines":-1)"}) {
        EXPECT_EQ(message(std::string(R"({"call":"failures",)") + members + "}"),
                  "member \"lines\" of the request must be a number from 1 to 1000");
    }
    for (const char* members : {R"("vrf":"")", R"("vrf":7)"}) {
        EXPECT_EQ(message(std::string(R"({"call":"failures",)") + members + "}"),
                  "member \"vrf\" of the request must be the name of a VRF");
    }
    EXPECT_EQ(result(R"({"call":"failures","number":"x"})"), "usage");
}
