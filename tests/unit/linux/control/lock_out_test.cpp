#include "linux/control/lock_out.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "linux/access_lists/acl_rule.h"
#include "linux/host/key_store_internal.h"
#include "linux/lockout/login_session.h"
#include "platform/acl_verifier.h"
#include "platform/mpp.h"
#include "unit/linux/access_lists/list_support.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/host/import_support.h"
#include "unit/user_keys/key_samples.h"

namespace {

using datastore_test::stored;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// Makes rules that admit the sources of the entries as hosts.
platform_status make_host_rules(uint32_t family, uint32_t service, const acl_list_entry* entries, size_t count,
                                acl_entry_rule* entry_rules, acl_list_rules* rules, void*) {
    const std::string port = service == MPP_SERVICE_SSH ? "22" : "830";
    std::string text = std::string("table ") + (family == ACL_FAMILY_IPV6 ? "ip6" : "ip") + " t {\nchain c {\n";
    for (size_t i = 0; i < count; i++) {
        acl_rule rule;
        EXPECT_EQ(acl_decode_rule(family, {0, {static_cast<const char*>(entries[i].record), entries[i].size}}, rule),
                  PLATFORM_OK);
        const std::array<uint8_t, 16>& source = rule.source.address;
        const std::string made = "ip saddr " + std::to_string(source[0]) + '.' + std::to_string(source[1]) + '.' +
                                 std::to_string(source[2]) + '.' + std::to_string(source[3]) + " tcp dport " + port +
                                 " accept\n";
        entry_rules[i] = {ACL_ENTRY_MAKES_RULE, text.size(), made.size()};
        text += made;
    }
    text += "tcp dport " + port + " drop\n}\n}\n";
    *rules = {strdup(text.c_str()), text.size(), service == MPP_SERVICE_SSH ? 22U : 830U};
    return PLATFORM_OK;
}

constexpr char vrf_item[] = "/cfg/gl/crypto/ssh/server/sshd/vrf/red";

/// The requests come from alice, who is logged in from 192.0.2.7 to port 22 of VRF red.
class control_lock_out_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        ASSERT_EQ(acl_service_start(), PLATFORM_OK);
        constexpr acl_verifier verifier = {make_host_rules};
        ASSERT_EQ(acl_service_register_verifier(&verifier, nullptr), PLATFORM_OK);
        ASSERT_EQ(result(R"({"call":"set","path":"@sshd/vrf/red","value":[]})"), "done");
        store_list("here", "192.0.2.7");
        store_list("elsewhere", "10.0.0.1");
        login_session_divert([this](pid_t pid) {
            asked = pid;
            return std::optional(session());
        });
        take_calls();
        audit.clear();
    }
    void TearDown() override {
        login_session_divert({});
        acl_service_stop();
        calls_test::TearDown();
    }

    static login_session session() {
        login_session session;
        session.vrf_name = "red";
        session.connection = {.source = {192, 0, 2, 7}, .source_port = 50000, .destination_port = 22};
        session.source = "192.0.2.7";
        session.user = "alice";
        session.method = "ed25519-pubkey";
        return session;
    }

    static void store_list(const std::string& name, const std::string& host) {
        acl_rule rule;
        rule.sequence = 10;
        rule.action = 1;
        rule.any_protocol = true;
        sscanf(host.c_str(), "%3hhu.%3hhu.%3hhu.%3hhu", &rule.source.address[0], &rule.source.address[1],
               &rule.source.address[2], &rule.source.address[3]);
        acl_stored_entry entry = {};
        ASSERT_EQ(acl_encode_rule(ACL_FAMILY_IPV4, rule, entry), PLATFORM_OK);
        ASSERT_EQ(acl_test::store_list(ACL_FAMILY_IPV4, name, {entry}), PLATFORM_OK);
    }

    pid_t asked = 0;
};

constexpr char bind_elsewhere[] = R"({"call":"set","path":"@sshd/vrf/red","value":[null,"elsewhere"]})";
constexpr char reason[] =
    "a new login like yours would be refused: list elsewhere, which this change binds to VRF red, does not admit "
    "192.0.2.7, from which you are logged in";

TEST_F(control_lock_out_test, a_change_that_keeps_its_author_out_is_refused_and_says_so) {
    const control_json answer = ask(bind_elsewhere);
    EXPECT_EQ(answer["result"], "refused");
    EXPECT_EQ(asked, peer.pid);
    EXPECT_THAT(answer["lock_out"].get<std::vector<std::string>>(), ElementsAre(reason));
    EXPECT_EQ(answer["message"], std::string(reason) + "\nnothing has been changed; if that is intended, use --yes");
    EXPECT_EQ(data(R"({"call":"get","path":"@sshd/vrf/red"})"), "[null,null,null]");
    EXPECT_THAT(take_calls(), testing::Each(testing::StartsWith("verify"))) << "nothing is applied";
    EXPECT_THAT(audit.back(), HasSubstr("result:=refused"));
}

TEST_F(control_lock_out_test, it_is_made_if_the_request_accepts_that) {
    const control_json answer = ask(R"({"call":"set","path":"@sshd/vrf/red","value":[null,"elsewhere"],"yes":true})");
    EXPECT_EQ(answer["result"], "done");
    EXPECT_THAT(control_json_text(answer["warnings"]), HasSubstr(reason));
    EXPECT_EQ(data(R"({"call":"get","path":"@sshd/vrf/red"})"), R"([null,"elsewhere",null])");
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/timeout","value":45,"yes":1})"), "usage");
}

TEST_F(control_lock_out_test, other_changes_need_nothing) {
    EXPECT_EQ(result(R"({"call":"set","path":"@sshd/vrf/red","value":[null,"here"]})"), "done");
    EXPECT_EQ(result(R"({"call":"set","path":"@sshd/vrf/blue","value":[null,"elsewhere"]})"), "done");
    EXPECT_EQ(result(R"({"call":"set","path":"@sshd/vrf/red","value":[null,"here","elsewhere"]})"), "done")
        << "of the other family";
    EXPECT_EQ(result(R"({"call":"set","path":"@sshd/vrf-netconf/red","value":[null,"elsewhere"]})"), "done")
        << "of the other service";
    EXPECT_EQ(result(R"({"call":"set","path":"@sshd/vrf/red","value":[null,"no_such_list"]})"), "done");
}

TEST_F(control_lock_out_test, nobody_is_warned_on_the_console) {
    login_session_divert([](pid_t) { return std::optional<login_session>(); });
    EXPECT_EQ(result(bind_elsewhere), "done");
    EXPECT_EQ(result(R"({"call":"delete","path":"@sshd/vrf/red"})"), "done");
}

TEST_F(control_lock_out_test, every_call_that_can_do_it_is_guarded) {
    EXPECT_EQ(result(R"({"call":"set","path":"@sshd/vrf/red","value":[null,"here"]})"), "done");
    EXPECT_EQ(result(R"({"call":"set","path":"@cmn/username/alice/keystr","value":")" +
                     key_test::key_of(key_test::usual(), key_test::modulus(1024)) + "\"}"),
              "done");
    for (const char* request :
         {R"({"call":"delete","path":"@sshd/vrf/red"})", R"({"call":"load","items":{"@sshd/vrf/red":null}})",
          R"({"call":"load","replace":true,"items":{}})",
          R"({"call":"load","confirm":5,"items":{"@sshd/vrf/red":null}})", R"({"call":"rollback","number":0})",
          R"({"call":"delete","path":"@cmn/username/alice/keystr"})",
          R"({"call":"acl_set","family":"ipv4","name":"here","lines":["permit tcp host 10.0.0.1 any"]})"}) {
        const control_json answer = ask(request);
        EXPECT_EQ(answer["result"], "refused") << request;
        EXPECT_TRUE(answer.contains("lock_out")) << request;
    }
    EXPECT_EQ(
        result(R"({"call":"acl_set","family":"ipv4","name":"elsewhere","lines":["permit tcp host 10.0.0.2 any"]})"),
        "done")
        << "not bound";
    EXPECT_EQ(result(R"({"call":"acl_delete","family":"ipv4","name":"here"})"), "done")
        << "an absent list restricts nobody";
}

TEST_F(control_lock_out_test, a_check_announces_it_and_succeeds) {
    const control_json answer = ask(R"({"call":"load","check":true,"items":{"@sshd/vrf/red":null}})");
    EXPECT_EQ(answer["result"], "done");
    EXPECT_THAT(control_json_text(answer["warnings"]), HasSubstr("removes the server of VRF red on port 22"));
}

TEST_F(control_lock_out_test, the_own_imported_key_is_guarded) {
    key_test::start_imports();
    const std::string own = key_test::ed25519_of('a');
    const std::string other = key_test::ed25519_of('b');
    public_key own_key;
    ASSERT_EQ(
        public_key_read("ssh-ed25519", key_test::field("ssh-ed25519") + key_test::field(std::string(32, 'a')), own_key),
        nullptr);
    const std::string fingerprint = public_key_fingerprint(own_key);
    login_session_divert([&fingerprint](pid_t) {
        login_session with_key = session();
        with_key.key_fingerprint = fingerprint;
        return std::optional(with_key);
    });
    ASSERT_EQ(key_test::import_key("alice", own + " me\n" + other), PLATFORM_OK);
    ASSERT_EQ(key_test::import_key("bob", own), PLATFORM_OK);
    const auto reasons = [this](const std::string& request) {
        return control_json_text(ask(request).value("lock_out", control_json()));
    };
    const std::string import = R"({"call":"key_import","user":"alice",)";
    EXPECT_THAT(reasons(R"({"call":"key_delete","user":"alice"})"), HasSubstr("deletes the public key of alice"));
    EXPECT_THAT(reasons(R"({"call":"key_delete","user":"alice","fingerprint":")" + fingerprint + "\"}"),
                HasSubstr("deletes the public key of alice"));
    EXPECT_THAT(reasons(import + R"("replace":true,"text":")" + other + "\"}"), HasSubstr("deletes the public key"));
    EXPECT_THAT(reasons(import + R"("text":"restrict )" + own + "\"}"),
                HasSubstr("changes the options of the public key of alice"));
    EXPECT_EQ(result(R"({"call":"load","items":{"/keys/alice":null}})"), "refused");
    for (const std::string& harmless :
         {import + R"("text":")" + own + " another comment\"}",
          import + R"("text":")" + key_test::ed25519_of('c') + "\"}", import + R"("text":"restrict )" + other + "\"}",
          std::string(R"({"call":"key_delete","user":"bob"})"),
          std::string(R"({"call":"key_delete","user":"alice","yes":true})")}) {
        const control_json answer = ask(harmless);
        EXPECT_EQ(answer["result"], "done") << harmless;
        EXPECT_FALSE(answer.contains("lock_out")) << harmless;
    }
}

TEST_F(control_lock_out_test, without_the_sessions_key_every_key_of_the_user_is_guarded) {
    key_test::start_imports();
    ASSERT_EQ(key_test::import_key("alice", key_test::ed25519_of('a') + "\n" + key_test::ed25519_of('b')), PLATFORM_OK);
    EXPECT_EQ(result(R"({"call":"key_import","user":"alice","text":")" + key_test::ed25519_of('c') + "\"}"), "done");
    EXPECT_THAT(control_json_text(ask(R"({"call":"key_import","user":"alice","replace":true,"text":")" +
                                      key_test::ed25519_of('b') + "\"}")["lock_out"]),
                HasSubstr("replaces the public key of alice"));
}

TEST_F(control_lock_out_test, a_list_can_be_checked_before_it_is_stored) {
    EXPECT_EQ(result(R"({"call":"set","path":"@sshd/vrf/red","value":[null,"here"]})"), "done");
    audit.clear();
    const control_json answer = ask(
        R"({"call":"acl_set","check":true,"family":"ipv4","name":"here","lines":["permit tcp host 10.0.0.1 any"]})");
    EXPECT_EQ(answer["result"], "done");
    EXPECT_EQ(control_json_text(answer["list"]),
              R"({"family":"ipv4","name":"here","outcome":"changed",)"
              R"("lines":["-10 permit ipv4 host 192.0.2.7 host 0.0.0.0","+10 permit tcp host 10.0.0.1 any"]})");
    EXPECT_EQ(control_json_text(answer["rules"]), R"([{"vrf":"red","service":"ssh"}])");
    EXPECT_THAT(control_json_text(answer["warnings"]), HasSubstr("would no longer admit 192.0.2.7"));
    std::vector<acl_stored_entry> entries;
    EXPECT_EQ(acl_list_entries(ACL_FAMILY_IPV4, "here", entries), PLATFORM_OK);
    acl_rule rule;
    EXPECT_EQ(acl_decode_rule(ACL_FAMILY_IPV4, entries[0], rule), PLATFORM_OK);
    EXPECT_EQ(rule.source.address[0], 192) << "nothing is stored";
    EXPECT_THAT(audit, IsEmpty()) << "a check is not audited";
    EXPECT_EQ(ask(R"({"call":"acl_set","check":true,"family":"ipv4","name":"new","lines":["nonsense"]})")["result"],
              "refused");
}

}  // namespace
