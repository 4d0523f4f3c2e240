#include "linux/datastore/served_lists.h"
#include "unit/linux/control/calls_support.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

platform_status list_two_users(std::string_view path, std::vector<datastore_list_entry>& entries) {
    if (path.empty()) {
        entries = {{"1000", {}}, {"1001", {}}};
        return PLATFORM_OK;
    }
    entries.push_back({path == "1000/" ? "alice" : "$(reboot)", {}});
    return PLATFORM_OK;
}

class control_complete_call_test : public control_test::calls_test {
  protected:
    std::vector<std::string> complete(const std::string& what, const std::string& word, const std::string& path = {}) {
        return ask(R"({"call":"complete","what":")" + what + R"(","word":")" + word + R"(","path":")" + path + "\"}")
            .value("data", std::vector<std::string>());
    }
};

TEST_F(control_complete_call_test, an_absolute_path_grows_by_one_component) {
    EXPECT_THAT(complete("item", "/"), ElementsAre("/access-lists/", "/cfg/", "/keys/"));
    EXPECT_THAT(complete("item", "/cfg/gl/crypto/ssh/server/cmn/ti"),
                ElementsAre("/cfg/gl/crypto/ssh/server/cmn/timeout"));
    EXPECT_THAT(complete("folder", "/cfg/gl/crypto/ssh/server/"),
                ElementsAre("/cfg/gl/crypto/ssh/server/cmn/", "/cfg/gl/crypto/ssh/server/sshd/"));
    EXPECT_THAT(complete("folder", "/cfg/gl/crypto/ssh/server/cmn/ti"), IsEmpty());
    EXPECT_THAT(complete("item", "/nowhere/"), IsEmpty());
}

TEST_F(control_complete_call_test, other_paths_are_completed_to_ends_that_mean_one_item) {
    EXPECT_THAT(complete("item", "ti"), ElementsAre("timeout"));
    EXPECT_THAT(complete("item", "client/d"),
                ElementsAre("client/disable/hmac/hmac_sha1", "client/disable/hmac/hmac_sha256",
                            "client/disable/hmac/hmac_sha512", "client/dscp"));
    EXPECT_THAT(complete("item", "server/cmn/max"), ElementsAre("server/cmn/max_auth_limit"));
    EXPECT_THAT(complete("item", ""), AllOf(Contains("timeout"), Contains("vrf/"), Not(Contains("dscp"))));
    EXPECT_THAT(complete("item", "x"), IsEmpty());
    EXPECT_THAT(complete("folder", "ss"), ElementsAre("ssh/", "sshd/", "sshd_backup/"));
}

TEST_F(control_complete_call_test, names_are_those_that_are_known) {
    ask(R"({"call":"load","items":{"@sshd/vrf/blue":[],"@sshd/vrf/black":[]}})");
    EXPECT_THAT(complete("item", "vrf/bl"), ElementsAre("vrf/black", "vrf/blue"));
    EXPECT_THAT(complete("item", "/cfg/gl/crypto/ssh/server/sshd/vrf/blu"),
                ElementsAre("/cfg/gl/crypto/ssh/server/sshd/vrf/blue"));
    EXPECT_THAT(complete("item", "blue"), IsEmpty());
    datastore_serve_lists("/cfg/gl/aaa/username/", list_two_users);
    EXPECT_THAT(complete("item", "username/"), ElementsAre("username/alice", "username/alice/keystr"));
    datastore_withdraw_lists("/cfg/gl/aaa/username/");
}

TEST_F(control_complete_call_test, values_are_offered_if_they_are_few) {
    EXPECT_THAT(complete("value", "", "fipsmode/value"), ElementsAre("false", "true"));
    EXPECT_THAT(complete("value", "t", "/cfg/gl/crypto/fipsmode/value"), ElementsAre("true"));
    EXPECT_THAT(complete("value", "", "logging"), ElementsAre("true"));
    EXPECT_THAT(complete("value", "", "port_forwarding"), ElementsAre("0", "1"));
    for (const char* path : {"timeout", "dscp", "nowhere", "vrf/blue", ""}) {
        EXPECT_THAT(complete("value", "", path), IsEmpty()) << path;
    }
}

TEST_F(control_complete_call_test, operational_paths_are_completed) {
    EXPECT_THAT(complete("operational", "se"),
                ElementsAre("server-params", "session_xml/brief", "session_xml/detail", "session_xml/rekey"));
    EXPECT_THAT(complete("operational", "/oper/crypto-ssh/c"), Each(StartsWith("/oper/crypto-ssh/client/")));
    EXPECT_THAT(complete("operational", "br"), IsEmpty());
}

TEST_F(control_complete_call_test, wrong_members_are_usage_errors) {
    EXPECT_EQ(result(R"({"call":"complete","what":"colour","word":""})"), "usage");
    EXPECT_EQ(result(R"({"call":"complete","what":"item"})"), "usage");
    EXPECT_THAT(complete("vrf", "no-such-vrf"), IsEmpty());
}

}  // namespace
