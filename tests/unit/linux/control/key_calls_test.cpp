#include "linux/host/key_store_internal.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/host/import_support.h"
#include "unit/user_keys/key_samples.h"
#include "user_keys/key_der.h"

namespace {

using key_test::key_of;
using key_test::modulus;
using key_test::usual;
using testing::ElementsAre;
using testing::HasSubstr;

class control_key_calls_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        key_test::start_imports();
    }

    control_json import(const std::string& user, const std::string& text) {
        const control_json request = {{"call", "key_import"}, {"user", user}, {"text", text}};
        return ask(control_json_text(request));
    }

    std::string imported(const std::string& user, const std::string& text) {
        const control_json answer = import(user, text);
        return answer.value("result", "") + answer.value("message", "");
    }

    /// A key that the agent's applier has stored.
    void configure(const std::string& user) {
        const std::string text = key_of(usual(), modulus(1024));
        rsa_public_key key;
        std::string der;
        ASSERT_EQ(key_text_read(text, key), PLATFORM_OK);
        ASSERT_EQ(key_der_make(key, der), PLATFORM_OK);
        ASSERT_EQ(datastore_test::set(key_record_item(user), text).status, PLATFORM_OK);
        const key_store_set_request request = {
            user.c_str(), KEY_STORE_USER_PUBLIC_KEY, 0, 1700000000, 1024, reinterpret_cast<const uint8_t*>(der.data()),
            der.size()};
        ASSERT_EQ(key_store_set_key(&request), PLATFORM_OK);
    }
};

TEST_F(control_key_calls_test, keys_are_listed_with_all_details) {
    EXPECT_EQ(data(R"({"call":"key_list"})"), "[]");
    configure("bob");
    ASSERT_EQ(imported("alice", key_of(usual(), modulus(2048)) + " me\n"), "done");
    const control_json keys = ask(R"({"call":"key_list"})")["data"];
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(keys[0]["user"], "alice");
    EXPECT_EQ(keys[0]["origin"], "exec");
    EXPECT_EQ(keys[0]["bits"], 2048);
    const rsa_public_key bobs = {modulus(1024), usual()};
    EXPECT_EQ(control_json_text(keys[1]),
              R"({"user":"bob","type":"ssh-rsa","bits":1024,"origin":"configuration","since":"2023-11-14T22:13:20Z",)"
              R"("fingerprint":")" +
                  key_fingerprint(bobs) + R"(","key":")" + key_text_write(bobs) + "\"}");
}

TEST_F(control_key_calls_test, a_file_may_have_comments_but_only_one_key) {
    const std::string key = key_of(usual(), modulus(1024));
    EXPECT_EQ(imported("alice", "# my key\n\n  \t\r\n" + key + " me\r\n\n"), "done");
    EXPECT_EQ(imported("alice", key + "\n" + key), "refuseduser alice: expected exactly one key on one line");
    EXPECT_EQ(imported("alice", "# none\n"), "refuseduser alice: expected exactly one key on one line");
    EXPECT_EQ(imported("alice", ""), "refuseduser alice: expected exactly one key on one line");
}

TEST_F(control_key_calls_test, an_invalid_key_is_refused_with_the_reason_and_the_expected_form) {
    const std::pair<std::string, const char*> rows[] = {
        {"ssh-ed25519 AAAA", "type is not ssh-rsa"},
        {"ssh-rsa ????", "not valid base64"},
        {key_of(usual(), modulus(1024)).substr(0, 100), "truncated"},
        {key_of("\1", modulus(1024)), "exponent"},
        {key_of(usual(), modulus(512)), "fewer than 1024 bits"},
        {key_of(usual(), modulus(16384)), "more than 1024 bytes in DER form"},
    };
    for (const auto& [text, reason] : rows) {
        EXPECT_THAT(imported("alice", text), testing::StartsWith("refused")) << reason;
        EXPECT_THAT(imported("alice", text), HasSubstr(reason));
        EXPECT_THAT(imported("alice", text), HasSubstr("expected a line such as \"ssh-rsa AAAA... comment\""));
    }
    EXPECT_EQ(data(R"({"call":"key_list"})"), "[]");
}

TEST_F(control_key_calls_test, configured_keys_are_not_changed) {
    configure("bob");
    EXPECT_EQ(imported("bob", key_of(usual(), modulus(2048))),
              "refuseduser bob has a configured key; delete "
              "/cfg/gl/crypto/ssh/server/cmn/username/bob/keystr to remove it");
    EXPECT_EQ(result(R"({"call":"key_delete","user":"bob"})"), "refused");
    EXPECT_EQ(ask(R"({"call":"key_list"})")["data"].size(), 1u);
}

TEST_F(control_key_calls_test, only_existing_users_get_a_key) {
    EXPECT_EQ(imported("eve", key_of(usual(), modulus(1024))), "refuseduser eve does not exist on this machine");
    EXPECT_THAT(audit.back(), HasSubstr("call:=key import, result:=refused, eve"));
    EXPECT_EQ(data(R"({"call":"key_list"})"), "[]");
}

TEST_F(control_key_calls_test, answers_say_whether_anything_changed) {
    EXPECT_EQ(import("alice", key_of(usual(), modulus(1024)))["changed"], true);
    const std::string listed = data(R"({"call":"key_list"})");
    EXPECT_EQ(import("alice", key_of(usual(), modulus(1024)) + " another comment")["changed"], false);
    EXPECT_THAT(audit.back(), HasSubstr("result:=done, nothing to change: /keys/alice"));
    EXPECT_EQ(data(R"({"call":"key_list"})"), listed);
    EXPECT_EQ(import("alice", key_of(usual(), modulus(2048)))["changed"], true);
    EXPECT_EQ(ask(R"({"call":"key_delete","user":"alice"})")["changed"], true);
    EXPECT_EQ(ask(R"({"call":"key_delete","user":"alice","absent_ok":true})")["changed"], false);
    EXPECT_EQ(result(R"({"call":"key_delete","user":"alice","absent_ok":0})"), "usage");
}

TEST_F(control_key_calls_test, deleting_requires_a_key) {
    ASSERT_EQ(imported("alice", key_of(usual(), modulus(1024))), "done");
    EXPECT_EQ(result(R"({"call":"key_delete","user":"alice"})"), "done");
    EXPECT_EQ(result(R"({"call":"key_delete","user":"alice"})"), "no_data");
    EXPECT_EQ(message(R"({"call":"key_delete","user":"alice"})"), "user alice has no key");
}

TEST_F(control_key_calls_test, changes_are_audited_with_user_and_result) {
    import("alice", key_of(usual(), modulus(1024)));
    import("alice", "nonsense");
    ask(R"({"call":"key_delete","user":"alice"})");
    ask(R"({"call":"key_list"})");
    EXPECT_THAT(audit, ElementsAre("Control: uid:=1000, pid:=42, call:=key import, result:=done, created /keys/alice",
                                   "Control: uid:=1000, pid:=42, call:=key import, result:=refused, alice",
                                   "Control: uid:=1000, pid:=42, call:=key delete, result:=done, deleted /keys/alice"));
}

TEST_F(control_key_calls_test, requests_must_be_complete_and_names_safe) {
    EXPECT_EQ(result(R"({"call":"key_delete"})"), "usage");
    EXPECT_EQ(result(R"({"call":"key_import","user":"alice"})"), "usage");
    EXPECT_EQ(result(R"({"call":"key_import","user":7,"text":""})"), "usage");
    for (const char* name : {"", "../x", "-a", "a b", "a\nb"}) {
        const control_json answer = import(name, "ssh-rsa AAAA");
        EXPECT_EQ(answer["result"], "refused") << name;
        EXPECT_THAT(answer["message"].get<std::string>(), HasSubstr("expected a name of 1 to 64 letters")) << name;
    }
}

TEST_F(control_key_calls_test, a_failure_of_the_database_is_reported) {
    datastore_close();
    EXPECT_EQ(result(R"({"call":"key_list"})"), "failed");
    EXPECT_THAT(imported("alice", key_of(usual(), modulus(1024))),
                HasSubstr("faileduser alice: The datastore is not available"));
}

}  // namespace
