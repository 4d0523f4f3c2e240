#include "linux/host/key_store_internal.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/host/import_support.h"
#include "unit/user_keys/key_samples.h"
#include "user_keys/key_der.h"
#include "user_keys/key_file.h"

namespace {

using key_test::key_of;
using key_test::modulus;
using key_test::usual;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string one = key_test::ed25519_of('a');
const std::string two = key_test::ed25519_of('b');

class control_key_calls_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        key_test::start_imports();
    }

    control_json import(const std::string& user, const std::string& text, bool replaces = false) {
        const control_json request = {{"call", "key_import"}, {"user", user}, {"text", text}, {"replace", replaces}};
        return ask(control_json_text(request));
    }

    std::string exported(const std::string& user, const std::string& fingerprint = "") {
        control_json request = {{"call", "key_export"}, {"user", user}};
        if (!fingerprint.empty()) {
            request["fingerprint"] = fingerprint;
        }
        std::string lines;
        for (const control_json& line : ask(control_json_text(request)).value("data", control_json::array())) {
            lines += line.get<std::string>() + "\n";
        }
        return lines;
    }

    /// The answer to the deletion of a key, without details.
    std::string deleted(const std::string& user, const std::string& fingerprint) {
        const control_json request = {{"call", "key_delete"}, {"user", user}, {"fingerprint", fingerprint}};
        const control_json answer = ask(control_json_text(request));
        return answer.value("result", "") + answer.value("message", "");
    }

    static std::string fingerprint_of(const std::string& line) {
        authorized_key key;
        std::string refusal;
        EXPECT_TRUE(authorized_key_read(line, key, refusal)) << refusal;
        return public_key_fingerprint(key.key);
    }

    static std::string seen_by_sshd(const std::string& user) {
        std::string lines;
        EXPECT_EQ(key_file_read(user, lines), PLATFORM_OK);
        return lines;
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
    ASSERT_EQ(imported("alice", "restrict " + one + " me\n" + key_of(usual(), modulus(2048))), "done");
    const control_json keys = ask(R"({"call":"key_list"})")["data"];
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_EQ(keys[0]["user"], "alice");
    EXPECT_EQ(keys[0]["type"], "ssh-ed25519");
    EXPECT_EQ(keys[0]["origin"], "imported");
    EXPECT_EQ(keys[0]["bits"], 256);
    EXPECT_EQ(keys[0]["options"], "restrict");
    EXPECT_EQ(keys[0]["comment"], "me");
    EXPECT_EQ(keys[0]["fingerprint"], fingerprint_of(one));
    EXPECT_EQ(keys[0]["approved_for_fips"], false);
    EXPECT_EQ(keys[0]["not_accepted"], nullptr);
    EXPECT_EQ(keys[1]["bits"], 2048);
    const std::string bobs = key_of(usual(), modulus(1024));
    EXPECT_EQ(control_json_text(keys[2]),
              R"({"user":"bob","type":"ssh-rsa","bits":1024,"origin":"configured","since":"2023-11-14T22:13:20Z",)"
              R"("fingerprint":")" +
                  fingerprint_of(bobs) + R"(","options":"","comment":"","key":")" + bobs +
                  R"(","approved_for_fips":true,"not_accepted":null})");
    EXPECT_EQ(ask(R"({"call":"key_list","user":"bob"})")["data"], control_json::array({keys[2]}));
    EXPECT_EQ(message(R"({"call":"key_list","user":"al"})"), "user al has no key");
    EXPECT_EQ(result(R"({"call":"key_list","user":"al"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"key_list","user":7})"), "usage");
}

TEST_F(control_key_calls_test, keys_that_are_not_accepted_are_marked) {
    ASSERT_EQ(imported("alice", one + "\nexpiry-time=\"20200101Z\" " + two + "\n" + key_of(usual(), modulus(2048))),
              "done");
    const auto marks = [this] {
        std::string text;
        const control_json answer = ask(R"({"call":"key_list"})");
        for (const control_json& key : answer["data"]) {
            text += control_json_text(key["not_accepted"]) + " ";
        }
        return text;
    };
    EXPECT_EQ(marks(), "null \"expired\" null ");
    ASSERT_EQ(
        datastore_register_verification(bind("/cfg/gl/crypto/fipsmode/"), "", 7, datastore_test::recorder::on_verify,
                                        datastore_test::recorder::on_apply, nullptr, &handlers),
        PLATFORM_OK);
    control_json turned_on = ask(R"({"call":"set","path":"/cfg/gl/crypto/fipsmode/value","value":true})");
    EXPECT_EQ(turned_on["warnings"],
              control_json::array({"in FIPS mode the servers do not accept all keys of alice; `key list` shows which"}))
        << control_json_text(turned_on);
    EXPECT_EQ(marks(), "\"not approved for FIPS mode\" \"not approved for FIPS mode\" null ");
    EXPECT_EQ(import("bob", key_test::ed25519_of('x'))["warnings"],
              control_json::array({"user bob: the key " + fingerprint_of(key_test::ed25519_of('x')) +
                                   " is not accepted in FIPS mode, because it is of type ssh-ed25519"}));
    EXPECT_FALSE(import("bob", key_of(usual(), modulus(1024))).contains("warnings"));
}

TEST_F(control_key_calls_test, several_keys_are_added_to_those_of_the_user) {
    const std::string rsa = key_of(usual(), modulus(1024));
    EXPECT_EQ(imported("alice", "# my key\n\n  \t\r\n" + rsa + " me\r\n\n"), "done");
    EXPECT_EQ(imported("alice", one + "\n" + two + " two\n"), "done");
    EXPECT_EQ(exported("alice"), rsa + " me\n" + one + "\n" + two + " two\n");
    EXPECT_EQ(seen_by_sshd("alice"), exported("alice"));
    EXPECT_EQ(import("alice", one)["changed"], false);
    EXPECT_EQ(import("alice", "restrict " + one + " one")["changed"], true);
    EXPECT_EQ(exported("alice"), rsa + " me\nrestrict " + one + " one\n" + two + " two\n");
    EXPECT_EQ(import("alice", two, true)["changed"], true);
    EXPECT_EQ(exported("alice"), two + "\n");
    EXPECT_EQ(seen_by_sshd("alice"), two + "\n");
}

TEST_F(control_key_calls_test, one_wrong_line_refuses_a_whole_file) {
    EXPECT_EQ(imported("alice", one + "\nno-ptty " + two).substr(0, 61),
              "refuseduser alice: line 2: unknown option \"no-ptty\"; expected");
    EXPECT_THAT(imported("alice", one + "\n" + one), HasSubstr("user alice: line 2: the key is the same as in line 1"));
    EXPECT_THAT(imported("alice", ""), HasSubstr("user alice: there is no key; expected a line such as"));
    EXPECT_EQ(data(R"({"call":"key_list"})"), "[]");
    std::string many;
    for (int i = 0; i < 40; i++) {
        many += key_test::ed25519_of(static_cast<char>(i)) + "\n";
    }
    EXPECT_EQ(imported("alice", many), "done");
    std::string more;
    for (int i = 40; i < 65; i++) {
        more += key_test::ed25519_of(static_cast<char>(i)) + "\n";
    }
    EXPECT_EQ(imported("alice", more), "refuseduser alice: 65 keys; a user can have at most 64");
    EXPECT_EQ(ask(R"({"call":"key_list"})")["data"].size(), 40U);
}

TEST_F(control_key_calls_test, a_private_key_is_neither_stored_nor_logged) {
    key_test::new_key("/tmp/private", "-t ed25519");
    const std::string text = key_test::contents("/tmp/private");
    const std::string body = text.substr(text.find('\n') + 1, 60);
    platform_test::journal_listener journal;
    EXPECT_THAT(imported("alice", text), HasSubstr("refuseduser alice: this is a private key"));
    const control_json load = {{"call", "load"}, {"items", {{"/keys/alice", control_json::array({text})}}}};
    const control_json answer = ask(control_json_text(load));
    EXPECT_EQ(answer["result"], "refused");
    EXPECT_THAT(answer["message"].get<std::string>(), HasSubstr("/keys/alice: key 1: this is a private key"));
    EXPECT_THAT(control_json_text(answer), testing::Not(HasSubstr(body)));
    for (const std::string& line : audit) {
        EXPECT_THAT(line, testing::Not(HasSubstr(body)));
    }
    EXPECT_THAT(journal.messages(), testing::Not(HasSubstr(body)));
    EXPECT_EQ(data(R"({"call":"key_list"})"), "[]");
}

TEST_F(control_key_calls_test, the_same_key_for_two_users_is_mentioned) {
    ASSERT_EQ(imported("alice", one + "\n" + two), "done");
    const control_json warning =
        control_json::array({"user bob: the key " + fingerprint_of(one) + " is also a key of user alice"});
    const control_json shared = import("bob", "restrict " + one + " mine");
    EXPECT_EQ(shared["result"], "done");
    EXPECT_EQ(shared["warnings"], warning);
    EXPECT_FALSE(import("bob", one).contains("warnings")) << "bob has it already";
    configure("al");
    EXPECT_EQ(import("bob", key_of(usual(), modulus(1024)))["warnings"],
              control_json::array({"user bob: the key " + fingerprint_of(key_of(usual(), modulus(1024))) +
                                   " is also a key of user al"}));
    ask(R"({"call":"key_delete","user":"bob"})");
    const control_json check = {
        {"call", "load"}, {"check", true}, {"items", {{"/keys/bob", one}, {"/keys/alice", nullptr}}}};
    EXPECT_FALSE(ask(control_json_text(check)).contains("warnings")) << "it would be moved";
    const control_json both = {{"call", "load"}, {"check", true}, {"items", {{"/keys/bob", two}}}};
    EXPECT_EQ(ask(control_json_text(both))["warnings"].size(), 1U);
}

TEST_F(control_key_calls_test, one_of_several_keys_is_deleted) {
    ASSERT_EQ(imported("alice", one + "\n" + two), "done");
    const std::string none = fingerprint_of(key_test::ed25519_of('x'));
    EXPECT_EQ(deleted("alice", none),
              "no_datauser alice has no key " + none + "; `key list alice` prints the user's keys");
    EXPECT_EQ(deleted("alice", "MD5:00"),
              "refused\"MD5:00\" is not a fingerprint; expected SHA256:..., as `key list` prints it");
    EXPECT_EQ(deleted("alice", fingerprint_of(one)), "done");
    EXPECT_EQ(seen_by_sshd("alice"), two + "\n");
    const control_json absent = {
        {"call", "key_delete"}, {"user", "alice"}, {"fingerprint", fingerprint_of(one)}, {"absent_ok", true}};
    EXPECT_EQ(ask(control_json_text(absent))["changed"], false);
    EXPECT_EQ(seen_by_sshd("alice"), two + "\n");
    EXPECT_EQ(deleted("alice", fingerprint_of(two)), "done");
    EXPECT_EQ(seen_by_sshd("alice"), "");
    EXPECT_EQ(deleted("alice", fingerprint_of(two)), "no_datauser alice has no key");
    EXPECT_EQ(ask(control_json_text(absent))["changed"], false);
    EXPECT_EQ(result(R"({"call":"key_delete","user":"alice","fingerprint":7})"), "usage");
}

TEST_F(control_key_calls_test, keys_are_exported_as_lines) {
    configure("bob");
    EXPECT_EQ(exported("bob"), key_of(usual(), modulus(1024)) + "\n");
    ASSERT_EQ(imported("alice", "restrict,command=\"ls\" " + one + " me\n" + two), "done");
    EXPECT_EQ(exported("alice", fingerprint_of(one)), "restrict,command=\"ls\" " + one + " me\n");
    ASSERT_EQ(imported("al", exported("alice")), "done");
    EXPECT_EQ(exported("al"), exported("alice"));
    EXPECT_EQ(message(R"({"call":"key_export","user":"root"})"), "user root has no key");
    EXPECT_EQ(result(R"({"call":"key_export","user":"alice","fingerprint":"x"})"), "refused");
    EXPECT_EQ(result(R"({"call":"key_export","user":"alice","fingerprint":"SHA256:x"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"key_export"})"), "usage");
}

TEST_F(control_key_calls_test, an_invalid_key_is_refused_with_the_reason_and_the_expected_form) {
    const std::pair<std::string, const char*> rows[] = {
        {"ssh-ed25519 AAAA", "truncated"},
        {"ssh-rsa ????", "not valid base64"},
        {key_of(usual(), modulus(1024)).substr(0, 100), "truncated"},
        {key_of("\1", modulus(1024)), "exponent"},
        {key_of(usual(), modulus(512)), "fewer than 1024 bits"},
    };
    for (const auto& [text, reason] : rows) {
        EXPECT_THAT(imported("alice", text), testing::StartsWith("refused")) << reason;
        EXPECT_THAT(imported("alice", text), HasSubstr(reason));
        EXPECT_THAT(imported("alice", text), HasSubstr("expected a line such as \"ssh-ed25519 AAAA... comment\""));
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
    EXPECT_EQ(import("alice", key_of(usual(), modulus(1024)))["changed"], false);
    EXPECT_THAT(audit.back(), HasSubstr("result:=done, nothing to change: /keys/alice"));
    EXPECT_EQ(data(R"({"call":"key_list"})"), listed);
    EXPECT_EQ(import("alice", key_of(usual(), modulus(1024)) + " another comment")["changed"], true);
    EXPECT_EQ(ask(R"({"call":"key_delete","user":"alice"})")["changed"], true);
    EXPECT_EQ(ask(R"({"call":"key_delete","user":"alice","absent_ok":true})")["changed"], false);
    EXPECT_EQ(result(R"({"call":"key_delete","user":"alice","absent_ok":0})"), "usage");
}

TEST_F(control_key_calls_test, the_refusal_of_a_configured_key_names_the_other_way) {
    handlers.verify_results["cmn/username/alice/keystr"] = EINVAL;
    handlers.refusal = "Key should begin with ssh-rsa";
    const auto message_of = [this](const char* text) {
        const control_json request = {{"call", "set"}, {"path", key_record_item("alice")}, {"value", text}};
        const control_json answer = ask(control_json_text(request));
        EXPECT_EQ(answer["result"], "refused");
        return answer["message"].get<std::string>();
    };
    EXPECT_THAT(message_of("ssh-ed25519 AAAA"),
                testing::EndsWith("; keys of other types are added with `ssh_cfg_ctl key import alice FILE`"));
    EXPECT_THAT(message_of("ssh-rsa AAAA"), testing::Not(HasSubstr("key import")));
    handlers.refusal = "another reason";
    EXPECT_THAT(message_of("ssh-ed25519 AAAA"), testing::EndsWith("another reason"));
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
    EXPECT_EQ(result(R"({"call":"key_import","user":"alice","text":"x","replace":1})"), "usage");
    EXPECT_EQ(result(R"({"call":"key_import","user":"alice","text":"x","yes":1})"), "usage");
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
