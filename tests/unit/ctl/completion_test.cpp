#include "ssh_cfg_ctl/completion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_agent.h"
#include "ssh_cfg_ctl/calls.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using word_list = std::vector<std::string>;

/// The completion without an agent.
word_list alone(const word_list& words) {
    word_list all = {"--socket", "/nowhere"};
    all.insert(all.end(), words.begin(), words.end());
    return ctl_complete(all);
}

struct asked {
    word_list candidates;
    std::string request;
};

/// The completion with an agent that answers with this data.
asked ask_agent(const word_list& words, const std::string& data) {
    fake_agent agent({R"({"result":"done","data":)" + data + "}"});
    word_list all = {"--socket", fake_agent::path()};
    all.insert(all.end(), words.begin(), words.end());
    const word_list candidates = ctl_complete(all);
    return {candidates, agent.requests.empty() ? "" : agent.requests[0]};
}

TEST(ctl_complete, calls_and_options_need_no_agent) {
    EXPECT_THAT(alone({""}), SizeIs(ctl_calls().size()));
    EXPECT_THAT(alone({"--json", "ver"}), ElementsAre("verify"));
    EXPECT_THAT(alone({"--timeout", "5", "ver"}), ElementsAre("verify"));
    EXPECT_THAT(alone({"--prog"}), ElementsAre("--progress"));
    EXPECT_THAT(alone({"status", "--"}), AllOf(Contains("--check"), Contains("--json")));
    EXPECT_THAT(alone({"list", "--a"}), ElementsAre("--all"));
    EXPECT_THAT(alone({"acl", "sh"}), ElementsAre("show"));
    EXPECT_THAT(alone({"acl", "set", "--empty", "ipv"}), ElementsAre("ipv4", "ipv6"));
    EXPECT_THAT(alone({"trace", ""}), ElementsAre("error", "event"));
    EXPECT_THAT(alone({"debug", "cfg-agent", "o"}), ElementsAre("off", "on"));
    EXPECT_THAT(alone({"help", "acl"}), ElementsAre("acl"));
    EXPECT_THAT(alone({"set", ""}), IsEmpty());
    EXPECT_THAT(alone({"nonsense", ""}), IsEmpty());
    EXPECT_THAT(alone({"dump", ""}), IsEmpty());
    EXPECT_THAT(ctl_complete({}), IsEmpty());
}

TEST(ctl_complete, the_agent_completes_paths_and_values) {
    const asked path = ask_agent({"set", "ti"}, R"(["timeout","other",3])");
    EXPECT_THAT(path.candidates, ElementsAre("timeout"));
    EXPECT_EQ(path.request, R"({"call":"complete","what":"item","word":"ti"})");
    const asked value = ask_agent({"set", "logging", ""}, R"(["true"])");
    EXPECT_THAT(value.candidates, ElementsAre("true"));
    EXPECT_EQ(value.request, R"({"call":"complete","what":"value","word":"","path":"logging"})");
    EXPECT_EQ(ask_agent({"list", "--all", "s"}, "[]").request, R"({"call":"complete","what":"folder","word":"s"})");
    EXPECT_EQ(ask_agent({"vrf", "unblock", ""}, "[]").request,
              R"({"call":"complete","what":"vrf","word":"","path":"unblock"})");
}

TEST(ctl_complete, names_come_from_the_agents_lists) {
    const char* lists = R"([{"family":"ipv4","name":"ssh"},{"family":"ipv6","name":"six"},{"family":"ipv4","name":7}])";
    EXPECT_THAT(ask_agent({"acl", "show", "ipv4", ""}, lists).candidates, ElementsAre("ssh"));
    EXPECT_THAT(ask_agent({"acl", "delete", "ipv6", "s"}, lists).candidates, ElementsAre("six"));
    EXPECT_THAT(ask_agent({"key", "delete", ""}, R"([{"user":"ann"}])").candidates, ElementsAre("ann"));
    const asked fingerprints =
        ask_agent({"key", "delete", "ann", "SHA"}, R"([{"fingerprint":"SHA256:x"},{"user":"ann"}])");
    EXPECT_THAT(fingerprints.candidates, ElementsAre("SHA256:x"));
    EXPECT_EQ(fingerprints.request, R"({"call":"key_list","user":"ann"})");
    EXPECT_THAT(ask_agent({"key", "export", "ann", ""}, "[]").candidates, IsEmpty());
    EXPECT_THAT(ask_agent({"debug", "cfg"}, R"([{"name":"cfg-agent"}])").candidates, ElementsAre("cfg-agent"));
    const asked users = ask_agent({"key", "import", "a"}, R"(["username/ann","username/ann/keystr"])");
    EXPECT_THAT(users.candidates, ElementsAre("ann"));
    EXPECT_EQ(users.request, R"({"call":"complete","what":"item","word":"username/a"})");
}

TEST(ctl_complete, an_answer_without_data_has_no_candidates) {
    fake_agent agent({R"({"result":"refused","message":"no"})", R"({"result":"done","data":{"a":1}})", ""});
    for (int i = 0; i < 3; i++) {
        EXPECT_THAT(ctl_complete({"--socket", fake_agent::path(), "set", ""}), IsEmpty());
    }
}

}  // namespace
