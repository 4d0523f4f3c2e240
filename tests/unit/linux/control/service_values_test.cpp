/// Access lists and imported keys in dumps, loads, the history and commits on trial.
#include "linux/access_lists/acl_service_internal.h"
#include "linux/datastore/confirmation.h"
#include "linux/enforcement/enforcement_internal.h"
#include "unit/linux/access_lists/list_support.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/host/import_support.h"
#include "unit/user_keys/key_samples.h"
#include "user_keys/key_file.h"

namespace {

using key_test::key_of;
using key_test::modulus;
using key_test::usual;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::vector<std::string>* notes = nullptr;
int notice_result = 0;

/// What a commit has called, in order: notices of lists beside the calls of the items' handlers.
int note_list(const acl_change_notice* notice) {
    notes->push_back(std::string("list ") + notice->acl_name + (notice->present != 0 ? " set" : " deleted"));
    return notice_result;
}

class service_values_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        ASSERT_EQ(acl_service_start(), PLATFORM_OK);
        key_test::start_imports();
        notes = &handlers.calls;
        notice_result = 0;
    }
    void TearDown() override {
        for (acl_handle* handle : subscriptions) {
            acl_service_release(handle);
        }
        std::filesystem::remove_all(key_file_directory);
        calls_test::TearDown();
    }

    void subscribe(const char* name) {
        acl_handle* handle = nullptr;
        ASSERT_EQ(acl_service_get_list(ACL_FAMILY_IPV4, name, nullptr, &handle), PLATFORM_OK);
        subscriptions.push_back(handle);
        ASSERT_EQ(acl_service_register_callback(handle, note_list), PLATFORM_OK);
    }

    /// The items of a load: a list with one entry for each sequence number.
    static std::string list_item(const std::string& name, const std::vector<int>& sequences) {
        control_json entries = control_json::array();
        for (const int sequence : sequences) {
            entries.push_back({{"SequenceNumber", sequence}, {"Grant", "permit"}});
        }
        return "\"/access-lists/ipv4/" + name + "\":" + control_json_text(entries);
    }
    static std::string key_item(const std::string& user, size_t bits) {
        return "\"/keys/" + user + R"(":")" + key_of(usual(), modulus(bits)) + '"';
    }

    control_json load(const std::string& items, const std::string& manner = "") {
        return ask(R"({"call":"load",)" + manner + R"("items":{)" + items + "}}");
    }
    void load_all(const std::string& items) {
        const control_json answer = load(items);
        ASSERT_EQ(answer["result"], "done") << control_json_text(answer);
        take_calls();
        audit.clear();
    }

    std::vector<std::string> dumped_paths() {
        std::vector<std::string> paths;
        const control_json answer = ask(R"({"call":"dump"})");
        for (const auto& [path, value] : answer["data"].items()) {
            paths.push_back(path);
        }
        return paths;
    }

    static size_t entries_of(const std::string& name) {
        std::vector<acl_stored_entry> entries;
        return acl_list_entries(ACL_FAMILY_IPV4, name, entries) == PLATFORM_OK ? entries.size() : SIZE_MAX;
    }

    static bool sshd_has_key(const char* user) {
        std::string line;
        return key_file_read(user, line) == PLATFORM_OK && !line.empty();
    }

    /// Continues with an engine whose operations can fail.
    static void use_memory() {
        datastore_close();
        datastore_test::memory = {};
        datastore_configure(&datastore_test::engine_in_memory, "memory");
        ASSERT_EQ(datastore_open(), PLATFORM_OK);
    }

    std::vector<acl_handle*> subscriptions;
};

TEST_F(service_values_test, a_dump_has_lists_and_imported_keys_and_can_be_loaded) {
    ask(R"({"call":"acl_set","family":"ipv6","name":"six","lines":["permit tcp any any eq 22"]})");
    load_all(list_item("ops", {10, 20}) + "," + key_item("alice", 1024) + R"(,"@cmn/timeout":45)");
    EXPECT_THAT(dumped_paths(), ElementsAre("/access-lists/ipv4/ops", "/access-lists/ipv6/six",
                                            "/cfg/gl/crypto/ssh/server/cmn/timeout", "/keys/alice"));
    const control_json dump = ask(R"({"call":"dump"})")["data"];
    EXPECT_EQ(dump["/access-lists/ipv4/ops"], ask(R"({"call":"acl_show","family":"ipv4","name":"ops"})")["data"]);
    EXPECT_EQ(dump["/keys/alice"], control_json::array({key_of(usual(), modulus(1024))}));
    EXPECT_EQ(data(R"({"call":"get","path":"/keys/alice"})"), control_json_text(dump["/keys/alice"]));
    EXPECT_EQ(result(R"({"call":"get","path":"/keys/bob"})"), "no_data");

    const control_json unchanged = ask(R"({"call":"load","replace":true,"items":)" + control_json_text(dump) + "}");
    EXPECT_EQ(unchanged["changed"], false) << control_json_text(unchanged);
    EXPECT_FALSE(unchanged.contains("commit"));
    ask(R"({"call":"delete","path":"/access-lists/"})");
    ask(R"({"call":"key_delete","user":"alice"})");
    EXPECT_THAT(dumped_paths(), ElementsAre("/cfg/gl/crypto/ssh/server/cmn/timeout"));
    ask(R"({"call":"load","items":)" + control_json_text(dump) + "}");
    EXPECT_EQ(ask(R"({"call":"dump"})")["data"], dump);
    EXPECT_TRUE(sshd_has_key("alice"));
}

TEST_F(service_values_test, one_commit_changes_lists_keys_and_items_in_the_order_in_which_they_depend_on_each_other) {
    subscribe("new");
    subscribe("old");
    load_all(list_item("old", {10}) + R"(,"@sshd/vrf/blue":[null,"old"])");
    const control_json answer = load(list_item("new", {10}) + R"(,"/access-lists/ipv4/old":null,)" +
                                     key_item("alice", 1024) + R"(,"@sshd/vrf/blue":[null,"new"])");
    EXPECT_EQ(answer["result"], "done") << control_json_text(answer);
    EXPECT_EQ(answer["items"].size(), 4U);
    const std::vector<std::string> calls = take_calls();
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_THAT(calls[0], HasSubstr("verify 2 sshd/vrf/blue"));
    EXPECT_EQ(calls[1], "list new set");
    EXPECT_THAT(calls[2], HasSubstr("apply 2 sshd/vrf/blue"));
    EXPECT_EQ(calls[3], "list old deleted");
    EXPECT_TRUE(sshd_has_key("alice"));
    const control_json history = ask(R"({"call":"history"})")["data"];
    ASSERT_EQ(history.size(), 2U);
    EXPECT_EQ(history[0]["changes"], 4);
}

TEST_F(service_values_test, nothing_is_changed_if_any_write_of_the_commit_fails) {
    use_memory();
    subscribe("ops");
    load_all(list_item("ops", {10}) + R"(,"@cmn/timeout":45)");
    const std::string changes = list_item("ops", {10, 20}) + "," + key_item("alice", 1024) + R"(,"@cmn/timeout":50)";
    const uint32_t operations = 6;  // begin, three values, the history, commit
    for (uint32_t failing = 1; failing <= operations; failing++) {
        datastore_test::memory.fail_at = datastore_test::memory.operations + failing;
        EXPECT_EQ(load(changes)["result"], "failed") << failing;
        EXPECT_EQ(entries_of("ops"), 1U) << failing;
        EXPECT_THAT(dumped_paths(), Not(testing::Contains("/keys/alice"))) << failing;
        EXPECT_FALSE(sshd_has_key("alice")) << failing;
        EXPECT_EQ(datastore_test::stored(datastore_test::timeout_path), "45") << failing;
        EXPECT_THAT(take_calls(), ElementsAre(HasSubstr("verify"))) << failing;
    }
    EXPECT_EQ(ask(R"({"call":"history"})")["data"].size(), 1U);
    const uint32_t before = datastore_test::memory.operations;
    EXPECT_EQ(load(changes)["result"], "done");
    EXPECT_EQ(datastore_test::memory.operations - before, operations);
}

TEST_F(service_values_test, a_refused_item_keeps_the_lists_and_keys_of_its_commit_away) {
    handlers.verify_results["cmn/timeout"] = EINVAL;
    EXPECT_EQ(load(list_item("ops", {10}) + "," + key_item("alice", 1024) + R"(,"@cmn/timeout":50)")["result"],
              "refused");
    EXPECT_THAT(dumped_paths(), IsEmpty());
    EXPECT_FALSE(sshd_has_key("alice"));
}

TEST_F(service_values_test, all_invalid_values_are_named_together) {
    const std::string message =
        load(R"("/access-lists/ipv4/a":[{"Grant":"maybe"}],"/access-lists/ipv4/b":{},"/access-lists/ipv4/-c":[],)"
             R"("/access-lists/ipv5/d":[],"/keys/alice":"ssh-rsa ????","/keys/a b":"x")")
            .value("message", "");
    EXPECT_THAT(message, AllOf(HasSubstr("/access-lists/ipv4/a: entry 1: Grant"),
                               HasSubstr("\n/access-lists/ipv4/b: expected an array of entries"),
                               HasSubstr("/access-lists/ipv4/-c: expected a name of 1 to 64 letters"),
                               HasSubstr("/access-lists/ipv5/d: "), HasSubstr("/keys/alice: "),
                               HasSubstr("expected a line such as \"ssh-ed25519 AAAA... comment\""),
                               HasSubstr("/keys/a b: expected the name of a user")));
    EXPECT_EQ(std::count(message.begin(), message.end(), '\n'), 5) << message;
    EXPECT_THAT(dumped_paths(), IsEmpty());
}

TEST_F(service_values_test, keys_of_unknown_users_and_of_root_are_refused) {
    EXPECT_EQ(load(key_item("eve", 1024)).value("message", ""), "/keys/eve: user eve does not exist on this machine");
    const control_json reserved = load(key_item("root", 1024));
    EXPECT_EQ(reserved["result"], "refused");
    EXPECT_THAT(reserved.value("message", ""), HasSubstr("/keys/root: permission denied: user root has user ID 0"));
    peer.uid = 0;
    EXPECT_EQ(load(key_item("root", 1024))["result"], "done");
    peer.uid = 1000;
    EXPECT_EQ(result(R"({"call":"delete","path":"/keys/root"})"), "refused");
}

TEST_F(service_values_test, a_check_changes_nothing) {
    subscribe("ops");
    load_all(list_item("ops", {10}));
    const control_json answer =
        load(list_item("ops", {10, 20}) + R"(,"/access-lists/ipv4/none":null)", R"("check":true,"absent_ok":true,)");
    EXPECT_EQ(answer["result"], "done");
    ASSERT_EQ(answer["items"].size(), 2U);
    EXPECT_EQ(answer["items"][0]["outcome"], "unchanged");
    EXPECT_EQ(answer["items"][1]["outcome"], "changed");
    EXPECT_EQ(answer["items"][1]["previous"].size(), 1U);
    EXPECT_EQ(answer["items"][1]["value"].size(), 2U);
    EXPECT_EQ(entries_of("ops"), 1U);
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(load(R"("/access-lists/ipv4/none":null)")["result"], "no_data");
}

TEST_F(service_values_test, replacing_the_configuration_deletes_lists_and_keys_only_if_it_names_any) {
    load_all(list_item("a", {10}) + "," + list_item("b", {10}) + "," + key_item("alice", 1024) +
             R"(,"@cmn/timeout":45)");
    EXPECT_EQ(load(R"("@cmn/timeout":46)", R"("replace":true,)")["items"].size(), 1U) << "a dump of an earlier version";
    EXPECT_EQ(data(R"({"call":"diff","items":{"@cmn/timeout":46}})"), "[]");
    EXPECT_EQ(ask(R"({"call":"diff","items":{"/keys/":null,)" + list_item("a", {10}) + "}}")["data"].size(), 3U);
    EXPECT_EQ(load(list_item("a", {10}) + R"(,"@cmn/timeout":46)", R"("replace":true,)")["result"], "done");
    EXPECT_THAT(dumped_paths(), ElementsAre("/access-lists/ipv4/a", datastore_test::timeout_path, "/keys/alice"));
    EXPECT_EQ(load(R"("/access-lists/":null,"/keys/":null)", R"("replace":true,)")["result"], "done");
    EXPECT_THAT(dumped_paths(), IsEmpty());
    EXPECT_FALSE(sshd_has_key("alice"));
}

TEST_F(service_values_test, deleting_all_items_keeps_lists_and_keys) {
    load_all(list_item("a", {10}) + "," + key_item("alice", 1024) + R"(,"@cmn/timeout":45)");
    EXPECT_EQ(result(R"({"call":"delete","path":"/"})"), "done");
    EXPECT_THAT(dumped_paths(), ElementsAre("/access-lists/ipv4/a", "/keys/alice"));
}

TEST_F(service_values_test, a_rollback_restores_lists_and_keys) {
    ask(R"({"call":"acl_set","family":"ipv4","name":"ops","lines":["permit tcp any any eq 22"]})");
    load_all(key_item("alice", 1024));
    const std::string before = data(R"({"call":"dump"})");
    const std::string keys = data(R"({"call":"key_list"})");
    ask(R"({"call":"acl_delete","family":"ipv4","name":"ops"})");
    ask(R"({"call":"acl_set","family":"ipv4","name":"more","lines":["permit tcp any any eq 22"]})");
    ask(R"({"call":"key_import","user":"alice","text":")" + key_of(usual(), modulus(2048)) + "\"}");
    const control_json history = ask(R"({"call":"history"})")["data"];
    ASSERT_EQ(history.size(), 5U);
    EXPECT_EQ(history[0]["call"], "key import");
    EXPECT_EQ(history[2]["call"], "acl delete");
    EXPECT_EQ(history[4]["uid"], 1000);
    const control_json differences = ask(R"({"call":"diff","from":2})")["data"];
    ASSERT_EQ(differences.size(), 3U);
    EXPECT_EQ(differences[0]["path"], "/access-lists/ipv4/more");
    EXPECT_EQ(differences[1]["outcome"], "deleted");
    EXPECT_EQ(differences[1]["previous"][0]["SequenceNumber"], 10);
    EXPECT_EQ(differences[2]["previous"], control_json::array({key_of(usual(), modulus(1024))}));
    EXPECT_EQ(differences[2]["value"],
              control_json::array({key_of(usual(), modulus(1024)), key_of(usual(), modulus(2048))}));

    EXPECT_EQ(result(R"({"call":"rollback","number":2})"), "done");
    EXPECT_EQ(data(R"({"call":"dump"})"), before);
    EXPECT_EQ(data(R"({"call":"key_list"})"), keys) << "also the time at which the key was imported";
}

TEST_F(service_values_test, a_users_keys_are_an_array_of_lines_or_the_text_of_a_file) {
    const std::string one = "restrict " + key_test::ed25519_of('a') + " me";
    const std::string two = key_test::ed25519_of('b');
    const auto load_keys = [this](const control_json& keys) {
        return ask(control_json_text({{"call", "load"}, {"items", {{"/keys/alice", keys}}}}));
    };
    EXPECT_EQ(load_keys({one, two})["changed"], true);
    EXPECT_EQ(data(R"({"call":"get","path":"/keys/alice"})"), control_json_text({one, two}));
    EXPECT_EQ(load_keys("# mine\n" + one + "\r\n" + two + "\n")["changed"], false);
    EXPECT_EQ(load_keys({two, one})["changed"], true);
    const control_json changed = ask(R"({"call":"diff"})")["data"];
    ASSERT_EQ(changed.size(), 1U);
    EXPECT_EQ(changed[0]["previous"], control_json({one, two}));
    EXPECT_EQ(changed[0]["value"], control_json({two, one}));
    const auto refusal = [&](const control_json& keys) { return load_keys(keys).value("message", ""); };
    const std::string form =
        "expected an array of lines of an authorized_keys file, such as [\"ssh-ed25519 AAAA... comment\"]";
    EXPECT_EQ(refusal(control_json::array()), "/keys/alice: " + form);
    EXPECT_EQ(refusal(7), "/keys/alice: " + form);
    EXPECT_EQ(refusal({one, 7}), "/keys/alice: key 2: " + form);
    EXPECT_THAT(refusal({one, "nonsense " + two}), HasSubstr("/keys/alice: key 2: unknown option \"nonsense\""));
    EXPECT_EQ(refusal({one, two, one}), "/keys/alice: key 3: the key is the same as in key 1");
    EXPECT_THAT(refusal({one + "\n" + two}), HasSubstr("/keys/alice: key 1: the line contains a control character"));
    EXPECT_THAT(refusal(""), HasSubstr("/keys/alice: there is no key"));
    EXPECT_EQ(data(R"({"call":"get","path":"/keys/alice"})"), control_json_text({two, one}));
}

TEST_F(service_values_test, a_commit_on_trial_can_be_undone_with_its_lists_and_keys) {
    load_all(list_item("ops", {10}));
    EXPECT_EQ(load(list_item("ops", {10, 20}) + "," + key_item("alice", 1024), R"("confirm":5,)")["confirm_within"],
              300);
    EXPECT_EQ(result(R"({"call":"acl_delete","family":"ipv4","name":"ops"})"), "refused");
    EXPECT_EQ(entries_of("ops"), 2U);
    EXPECT_EQ(result(R"({"call":"rollback","number":1})"), "done");
    EXPECT_EQ(entries_of("ops"), 1U);
    EXPECT_FALSE(sshd_has_key("alice"));
}

TEST_F(service_values_test, warnings_describe_the_lists_as_the_commit_leaves_them) {
    const std::string open = "VRF blue: SSH is open to every IPv4 source: ";
    const auto warnings = [this](const std::string& items) {
        return control_test::list_warnings(load(items, R"("check":true,)"));
    };
    const std::string bound =
        R"("@sshd/vrf/blue":[null,"v4","v6"],"/access-lists/ipv6/v6":[{"IsPacketAllowOrDeny":1}])";
    EXPECT_THAT(warnings(bound + "," + list_item("v4", {10})), IsEmpty());
    EXPECT_THAT(warnings(bound), ElementsAre(open + "there is no IPv4 access list v4"));
    EXPECT_THAT(warnings(bound + "," + list_item("v4", {})), ElementsAre(open + "IPv4 access list v4 is empty"));
    load_all(bound + "," + list_item("v4", {10}));
    EXPECT_THAT(warnings(R"("/access-lists/ipv4/v4":null)"), ElementsAre(open + "there is no IPv4 access list v4"));
    EXPECT_THAT(warnings(R"("/access-lists/ipv4/v4":null,"@sshd/vrf/blue":null)"), IsEmpty());
}

TEST_F(service_values_test, what_is_not_in_force_is_named) {
    subscribe("ops");
    notice_result = 1;
    const control_json answer = load(list_item("ops", {10}));
    EXPECT_EQ(answer["result"], "not_in_force");
    EXPECT_THAT(answer.value("message", ""), HasSubstr("access list ops ipv4: not loaded everywhere"));
    EXPECT_EQ(entries_of("ops"), 1U) << "the list is stored";
    notice_result = 0;
    EXPECT_EQ(load(list_item("ops", {10}))["changed"], false);
    EXPECT_FALSE(enforcement_any_failed()) << "the list has been loaded again";
}

TEST_F(service_values_test, lists_and_keys_are_listed_and_completed) {
    EXPECT_EQ(data(R"({"call":"complete","what":"item","word":"/"})"), R"(["/access-lists/","/cfg/","/keys/"])");
    EXPECT_EQ(result(R"({"call":"list","path":"/keys"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"list","path":"/access-lists/ipv4/"})"), "no_data");
    load_all(list_item("ops", {10}) + "," + list_item("mgmt", {10}) + "," + key_item("alice", 1024) +
             R"(,"@cmn/timeout":45)");
    EXPECT_EQ(data(R"({"call":"list","path":"/"})"), R"(["access-lists","cfg","keys"])");
    EXPECT_EQ(data(R"({"call":"list","path":"/access-lists"})"), R"(["ipv4"])");
    EXPECT_EQ(data(R"({"call":"list","path":"/access-lists/ipv4/"})"), R"(["mgmt","ops"])");
    EXPECT_EQ(data(R"({"call":"list","path":"/keys"})"), R"(["alice"])");
    EXPECT_EQ(data(R"({"call":"list","path":"/access-lists","all":true})"),
              R"([{"name":"ipv4/","configured":true,"items":2},{"name":"ipv6/","configured":false,"items":0}])");
    EXPECT_EQ(data(R"({"call":"list","path":"/access-lists/ipv4","all":true})"),
              R"([{"name":"mgmt","configured":true,"entries":1},{"name":"ops","configured":true,"entries":1}])");
    EXPECT_EQ(ask(R"({"call":"list","path":"/keys","all":true})")["data"][0]["value"],
              control_json::array({key_of(usual(), modulus(1024))}));
    EXPECT_EQ(data(R"({"call":"complete","what":"item","word":"/access-lists/ipv4/o"})"),
              R"(["/access-lists/ipv4/ops"])");
    // They have no short paths.
    EXPECT_EQ(data(R"({"call":"complete","what":"item","word":"op"})"), "[]");
    EXPECT_EQ(data(R"({"call":"complete","what":"folder","word":"/access-lists/"})"),
              R"(["/access-lists/ipv4/","/access-lists/ipv6/"])");
}

TEST_F(service_values_test, a_configured_key_is_not_dumped_as_an_imported_one) {
    ASSERT_EQ(datastore_private_put("user_key/bob", key_record_encode({key_origin::configuration,
                                                                       {{{{}, key_test::rsa_key(1024), {}}, 7}}})),
              PLATFORM_OK);
    EXPECT_THAT(dumped_paths(), IsEmpty());
    EXPECT_EQ(result(R"({"call":"delete","path":"/keys/bob"})"), "no_data");
    EXPECT_EQ(ask(R"({"call":"delete","path":"/keys/bob","absent_ok":true})")["changed"], false);
    std::string bytes;
    EXPECT_EQ(datastore_private_get("user_key/bob", bytes), PLATFORM_OK);
}

TEST_F(service_values_test, damaged_values_are_left_out_of_a_dump_and_can_be_deleted) {
    ASSERT_EQ(datastore_private_put("acl/ipv4/bad", "x"), PLATFORM_OK);
    ASSERT_EQ(datastore_private_put("user_key/alice", "x"), PLATFORM_OK);
    platform_test::journal_listener journal;
    EXPECT_THAT(dumped_paths(), IsEmpty());
    EXPECT_THAT(journal.messages(), AllOf(HasSubstr("The stored value /access-lists/ipv4/bad is damaged\n"),
                                          HasSubstr("The stored value /keys/alice is damaged\n")));
    EXPECT_EQ(result(R"({"call":"acl_delete","family":"ipv4","name":"bad"})"), "done");
    EXPECT_EQ(result(R"({"call":"key_delete","user":"alice"})"), "done");
}

}  // namespace
