#include "ssh_cfg_ctl/consent.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <cstdio>

#include "fake_agent.h"

namespace {

using testing::HasSubstr;

constexpr char lock_out_refusal[] =
    R"({"result":"refused","message":"no","lock_out":["a new login would be refused"]})";
constexpr char change_done[] = R"({"result":"done"})";

/// Makes standard input and standard error a terminal on which somebody has typed `reply`.
class operators_terminal {
  public:
    explicit operators_terminal(const std::string& reply) {
        int terminal = -1;
        EXPECT_EQ(openpty(&keyboard_, &terminal, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(write(keyboard_, reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
        input_ = dup(STDIN_FILENO);
        errors_ = dup(STDERR_FILENO);
        dup2(terminal, STDIN_FILENO);
        dup2(terminal, STDERR_FILENO);
        close(terminal);
    }
    ~operators_terminal() {
        dup2(input_, STDIN_FILENO);
        dup2(errors_, STDERR_FILENO);
        for (const int descriptor : {keyboard_, input_, errors_}) {
            close(descriptor);
        }
    }
    operators_terminal(const operators_terminal&) = delete;
    operators_terminal& operator=(const operators_terminal&) = delete;

    /// What the operator has seen so far.
    /// Returns what has been shown, as soon as that includes `expected`. A read may return only a part.
    std::string screen(const std::string& expected) const {
        std::string text;
        pollfd arrival = {keyboard_, POLLIN, 0};
        char part[4096];
        while (text.find(expected) == std::string::npos && poll(&arrival, 1, 30'000) == 1) {
            const ssize_t size = read(keyboard_, part, sizeof part);
            if (size <= 0) {
                break;
            }
            text.append(part, static_cast<size_t>(size));
        }
        return text;
    }

  private:
    int keyboard_ = -1;
    int input_ = -1;
    int errors_ = -1;
};

control_json change(const std::vector<std::string>& answers, std::vector<std::string>& requests,
                    bool consents = false) {
    fake_agent agent(answers);
    ctl_connection_settings settings = {fake_agent::path(), 5, false};
    settings.consents = consents;
    control_json answer = ctl_ask_with_consent(settings, {{"call", "set"}});
    requests = agent.requests;
    return answer;
}

TEST(ctl_ask_with_consent, nobody_is_asked_without_a_terminal) {
    std::vector<std::string> requests;
    EXPECT_EQ(change({lock_out_refusal}, requests)["message"], "no");
    EXPECT_EQ(change({change_done}, requests, true)["result"], "done");
    EXPECT_THAT(requests[0], HasSubstr(R"("yes":true)"));
}

TEST(ctl_ask_with_consent, the_operator_confirms_on_the_terminal) {
    std::vector<std::string> requests;
    const operators_terminal terminal("yes\n");
    EXPECT_EQ(change({lock_out_refusal, change_done}, requests)["result"], "done");
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[0].find("\"yes\""), std::string::npos);
    EXPECT_THAT(requests[1], HasSubstr(R"("yes":true)"));
    const std::string question = "a new login would be refused";
    EXPECT_THAT(terminal.screen(question), HasSubstr(question));
}

TEST(ctl_ask_with_consent, any_other_reply_changes_nothing) {
    for (const char* reply : {"no\n", "y\n", "\n", "yes, please\n"}) {
        std::vector<std::string> requests;
        const operators_terminal terminal(reply);
        EXPECT_EQ(change({lock_out_refusal}, requests)["message"], "not confirmed, nothing has been changed") << reply;
        EXPECT_EQ(requests.size(), 1U);
        clearerr(stdin);
    }
}

TEST(ctl_ask_with_consent, other_answers_are_passed_on) {
    std::vector<std::string> requests;
    const operators_terminal terminal("yes\n");
    EXPECT_EQ(change({R"({"result":"refused","message":"no"})"}, requests)["message"], "no");
}

}  // namespace
