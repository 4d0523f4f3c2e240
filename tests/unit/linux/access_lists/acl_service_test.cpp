#include <arpa/inet.h>
#include <errno.h>

#include "linux/access_lists/acl_service_internal.h"
#include "linux/process/event_manager_internal.h"
#include "platform/enforcement.h"
#include "platform/event_manager.h"
#include "unit/linux/access_lists/list_support.h"
#include "unit/linux/control/calls_support.h"

namespace {

using acl_test::delete_list;
using acl_test::store_list;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> notices;
int callback_result = 0;

std::string shown(const acl_change_notice* notice) {
    return std::string(notice->acl_name) + (notice->present != 0 ? " present" : " gone");
}

int note_change(const acl_change_notice* notice) {
    notices.push_back(shown(notice));
    return callback_result;
}

int another_callback(const acl_change_notice* notice) {
    notices.push_back("too: " + shown(notice));
    return 0;
}

class acl_service_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        ASSERT_EQ(event_manager_create("acl_service_test", &manager), PLATFORM_OK);
        ASSERT_EQ(acl_service_start(), PLATFORM_OK);
        notices.clear();
        callback_result = 0;
    }
    void TearDown() override {
        for (acl_handle* handle : handles) {
            acl_service_release(handle);
        }
        event_manager_free(manager);
        calls_test::TearDown();
    }

    acl_handle* subscribe(uint32_t family, const char* name, acl_change_callback callback = note_change) {
        acl_handle* handle = nullptr;
        EXPECT_EQ(acl_service_get_list(family, name, manager, &handle), PLATFORM_OK);
        EXPECT_EQ(acl_service_register_callback(handle, callback), PLATFORM_OK);
        handles.push_back(handle);
        return handle;
    }

    /// The notices received since the last call.
    static std::vector<std::string> take_notices() { return std::exchange(notices, {}); }

    static std::vector<acl_stored_entry> entries(uint32_t count, const char* text = "record") {
        std::vector<acl_stored_entry> made;
        for (uint32_t i = 1; i <= count; i++) {
            made.push_back({i * 10, text + std::to_string(i)});
        }
        return made;
    }

    static std::vector<std::string> records(uint32_t family, const char* name) {
        std::vector<acl_stored_entry> read;
        EXPECT_EQ(acl_list_entries(family, name, read), PLATFORM_OK);
        std::vector<std::string> shown;
        for (const acl_stored_entry& entry : read) {
            shown.push_back(std::to_string(entry.sequence) + ' ' + entry.record);
        }
        return shown;
    }

    event_manager* manager = nullptr;
    std::vector<acl_handle*> handles;
};

TEST_F(acl_service_test, a_list_survives_reopening) {
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(2)), PLATFORM_OK);
    reopen();
    EXPECT_THAT(records(ACL_FAMILY_IPV4, "ops"), ElementsAre("10 record1", "20 record2"));
    std::vector<acl_stored_entry> none;
    EXPECT_EQ(acl_list_entries(ACL_FAMILY_IPV6, "ops", none), DATASTORE_NO_SUCH_LIST);
}

TEST_F(acl_service_test, a_list_is_replaced_completely_or_not_at_all) {
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(3, "old")), PLATFORM_OK);
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(1, "new")), PLATFORM_OK);
    EXPECT_THAT(records(ACL_FAMILY_IPV4, "ops"), ElementsAre("10 new1"));
}

TEST_F(acl_service_test, a_list_that_cannot_be_stored_is_kept_without_a_notice) {
    datastore_close();
    datastore_test::memory = {};
    datastore_configure(&datastore_test::engine_in_memory, database().c_str());
    ASSERT_EQ(datastore_open(), PLATFORM_OK);
    subscribe(ACL_FAMILY_IPV4, "ops");
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(1, "old")), PLATFORM_OK);
    take_notices();
    const uint32_t before = datastore_test::memory.operations;
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(1, "older")), PLATFORM_OK);
    const uint32_t operations = datastore_test::memory.operations - before;
    EXPECT_EQ(operations, 4U) << "begin, the list, the history, commit";
    take_notices();
    for (uint32_t failing = 1; failing <= operations; failing++) {
        datastore_test::memory.fail_at = datastore_test::memory.operations + failing;
        EXPECT_NE(store_list(ACL_FAMILY_IPV4, "ops", entries(2, "new")), PLATFORM_OK) << failing;
        EXPECT_THAT(records(ACL_FAMILY_IPV4, "ops"), ElementsAre("10 older1")) << failing;
        EXPECT_THAT(take_notices(), IsEmpty()) << failing;
    }
}

TEST_F(acl_service_test, names_are_listed_by_family) {
    for (const char* name : {"b", "a", "a-1"}) {
        ASSERT_EQ(store_list(ACL_FAMILY_IPV4, name, entries(1)), PLATFORM_OK);
    }
    ASSERT_EQ(store_list(ACL_FAMILY_IPV6, "six", {}), PLATFORM_OK);
    std::vector<std::string> names;
    ASSERT_EQ(acl_list_names(ACL_FAMILY_IPV4, names), PLATFORM_OK);
    EXPECT_THAT(names, ElementsAre("a", "a-1", "b"));
    names.clear();
    ASSERT_EQ(acl_list_names(ACL_FAMILY_IPV6, names), PLATFORM_OK);
    EXPECT_THAT(names, ElementsAre("six"));
}

TEST_F(acl_service_test, notices_are_sent_during_the_commit) {
    subscribe(ACL_FAMILY_IPV4, "ops");
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(1)), PLATFORM_OK);
    EXPECT_THAT(take_notices(), ElementsAre("ops present"));
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(1)), PLATFORM_OK);
    EXPECT_THAT(take_notices(), IsEmpty()) << "nothing has changed";
}

TEST_F(acl_service_test, a_callback_is_called_once_however_many_handles_register_it) {
    subscribe(ACL_FAMILY_IPV4, "ops");
    subscribe(ACL_FAMILY_IPV4, "ops");
    subscribe(ACL_FAMILY_IPV4, "ops", another_callback);
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(1)), PLATFORM_OK);
    EXPECT_THAT(take_notices(), testing::UnorderedElementsAre("ops present", "too: ops present"));
}

TEST_F(acl_service_test, a_deleted_list_is_announced) {
    subscribe(ACL_FAMILY_IPV4, "ops");
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(1)), PLATFORM_OK);
    ASSERT_EQ(delete_list(ACL_FAMILY_IPV4, "ops"), PLATFORM_OK);
    EXPECT_THAT(take_notices(), ElementsAre("ops present", "ops gone"));
}

TEST_F(acl_service_test, an_emptied_list_no_longer_exists) {
    subscribe(ACL_FAMILY_IPV6, "six");
    ASSERT_EQ(store_list(ACL_FAMILY_IPV6, "six", {}), PLATFORM_OK);
    EXPECT_THAT(take_notices(), ElementsAre("six gone"));
}

TEST_F(acl_service_test, other_lists_families_and_former_subscribers_get_no_notice) {
    subscribe(ACL_FAMILY_IPV6, "ops");
    subscribe(ACL_FAMILY_IPV4, "other");
    acl_handle* former = subscribe(ACL_FAMILY_IPV4, "ops");
    ASSERT_EQ(acl_service_unregister_callback(former, note_change), PLATFORM_OK);
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(1)), PLATFORM_OK);
    EXPECT_THAT(take_notices(), IsEmpty());
}

TEST_F(acl_service_test, a_failed_callback_does_not_affect_the_next_change) {
    subscribe(ACL_FAMILY_IPV4, "ops");
    callback_result = 1;
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(1)), PLATFORM_OK);
    EXPECT_THAT(take_notices(), ElementsAre("ops present"));
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(2)), PLATFORM_OK);
    EXPECT_THAT(take_notices(), ElementsAre("ops present"));
}

TEST_F(acl_service_test, invalid_use_of_handles_is_refused) {
    acl_handle* handle = nullptr;
    EXPECT_EQ(acl_service_get_list(5, "ops", manager, &handle), platform_status{EINVAL});
    EXPECT_EQ(acl_service_get_list(ACL_FAMILY_IPV4, nullptr, manager, &handle), platform_status{EINVAL});
    handle = subscribe(ACL_FAMILY_IPV4, "ops");
    EXPECT_EQ(acl_service_register_callback(handle, note_change), platform_status{EALREADY});
    EXPECT_EQ(acl_service_unregister_callback(handle, another_callback), platform_status{EINVAL});
    EXPECT_EQ(acl_service_register_callback(nullptr, note_change), platform_status{EINVAL});
}

TEST_F(acl_service_test, a_missing_list_cannot_be_deleted) {
    EXPECT_EQ(delete_list(ACL_FAMILY_IPV4, "ops"), DATASTORE_NO_SUCH_ITEM);
}

TEST_F(acl_service_test, a_damaged_list_is_not_read) {
    ASSERT_EQ(datastore_private_put("acl/ipv4/ops", std::string_view("\1\0\0\0\377\0\0\0x", 9)), PLATFORM_OK);
    std::vector<acl_stored_entry> read;
    EXPECT_EQ(acl_list_entries(ACL_FAMILY_IPV4, "ops", read), platform_status{EBADMSG});
}

TEST_F(acl_service_test, entries_are_read_through_the_datastore_in_order) {
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", entries(12)), PLATFORM_OK);
    datastore_binding* binding = bind("/oper/ipv4-acl/gl/show/access-list/");
    datastore_list* list = nullptr;
    uint32_t count = 0;
    ASSERT_EQ(datastore_list_get(binding, "ops/sequencetable/", -1, &list, &count), PLATFORM_OK);
    ASSERT_EQ(count, 12U);
    const void* record = nullptr;
    size_t size = 0;
    ASSERT_EQ(datastore_list_fetch(list, 11, &record, &size), PLATFORM_OK);
    EXPECT_EQ(std::string(static_cast<const char*>(record), size), "record12");
    datastore_list_free(list);
    list = nullptr;
    EXPECT_EQ(datastore_list_get(binding, "none/sequencetable/", -1, &list, &count), DATASTORE_NO_SUCH_LIST);
    EXPECT_EQ(datastore_list_get(binding, "ops/", -1, &list, &count), DATASTORE_NO_SUCH_LIST);
}

TEST_F(acl_service_test, an_empty_list_is_read_like_a_missing_one) {
    ASSERT_EQ(store_list(ACL_FAMILY_IPV4, "ops", {}), PLATFORM_OK);
    datastore_binding* binding = bind("/oper/ipv4-acl/gl/show/access-list/");
    datastore_list* list = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(datastore_list_get(binding, "ops/sequencetable/", -1, &list, &count), DATASTORE_NO_SUCH_LIST);
}

TEST_F(acl_service_test, names_have_1_to_64_characters_without_control_characters) {
    for (const std::string& name : {std::string("a"), std::string("A_b-c.9"), std::string(64, 'n')}) {
        EXPECT_TRUE(acl_name_is_valid(name)) << name;
    }
    for (const std::string& name : {std::string(), std::string(65, 'n'), std::string("-a"), std::string(".a"),
                                    std::string("a/b"), std::string("a b"), std::string("a;b"), std::string("a\n"),
                                    std::string("\303\244"), std::string("a\0b", 3)}) {
        EXPECT_FALSE(acl_name_is_valid(name)) << name;
    }
}

TEST_F(acl_service_test, actions_have_names) {
    EXPECT_STREQ(acl_service_action_name(0), "deny");
    EXPECT_STREQ(acl_service_action_name(1), "permit");
    EXPECT_STREQ(acl_service_action_name(2), "unknown");
    EXPECT_STREQ(acl_service_action_name(UINT32_MAX), "unknown");
}

// The operator's calls

TEST_F(acl_service_test, the_call_replaces_shows_lists_and_deletes) {
    EXPECT_EQ(
        result(R"({"call":"acl_set","family":"ipv4","name":"ops","lines":["permit tcp any any eq 22","# words",""]})"),
        "done");
    EXPECT_EQ(ask(R"({"call":"acl_show","family":"ipv4","name":"ops"})")["lines"][0], "10 permit tcp any any eq ssh");
    EXPECT_EQ(data(R"({"call":"acl_list"})"), R"([{"family":"ipv4","name":"ops","entries":1}])");
    EXPECT_EQ(result(R"({"call":"acl_delete","family":"ipv4","name":"ops"})"), "done");
    EXPECT_EQ(result(R"({"call":"acl_show","family":"ipv4","name":"ops"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"acl_delete","family":"ipv4","name":"ops"})"), "no_data");
    EXPECT_THAT(audit, ElementsAre(HasSubstr("call:=acl set, result:=done, created /access-lists/ipv4/ops"),
                                   HasSubstr("call:=acl delete, result:=done, deleted /access-lists/ipv4/ops")));
}

TEST_F(acl_service_test, an_identical_list_is_not_loaded_again) {
    const std::string request = R"({"call":"acl_set","family":"ipv4","name":"ops","lines":["permit tcp any any"]})";
    subscribe(ACL_FAMILY_IPV4, "ops");
    EXPECT_EQ(ask(request)["changed"], true);
    EXPECT_THAT(std::exchange(notices, {}), ElementsAre("ops present"));
    EXPECT_EQ(ask(request)["changed"], false);
    EXPECT_THAT(take_notices(), IsEmpty());
    EXPECT_THAT(audit.back(), HasSubstr("result:=done, nothing to change: /access-lists/ipv4/ops"));
    enforcement_failed("server blue", "for a test");
    EXPECT_EQ(ask(request)["changed"], false);
    EXPECT_THAT(std::exchange(notices, {}), ElementsAre("ops present")) << "something was not in force";
    enforcement_restored("server blue");
}

TEST_F(acl_service_test, an_absent_list_is_deleted_if_that_is_accepted) {
    ask(R"({"call":"acl_set","family":"ipv4","name":"ops","lines":["permit tcp any any"]})");
    const std::string request = R"({"call":"acl_delete","family":"ipv4","name":"ops","absent_ok":)";
    EXPECT_EQ(ask(request + "true}")["changed"], true);
    EXPECT_EQ(ask(request + "true}")["changed"], false);
    EXPECT_EQ(ask(request + "false}")["result"], "no_data");
    EXPECT_EQ(ask(request + "1}")["result"], "usage");
}

TEST_F(acl_service_test, a_refused_call_names_the_line_and_keeps_the_list) {
    ask(R"({"call":"acl_set","family":"ipv4","name":"ops","lines":["permit tcp any any"]})");
    const char* wrong =
        R"({"call":"acl_set","family":"ipv4","name":"ops","lines":["permit ip any any","deny tpc any any"]})";
    EXPECT_EQ(result(wrong), "refused");
    EXPECT_THAT(message(wrong), HasSubstr("line 2: \"tpc\""));
    const char* turned =
        R"({"call":"acl_set","family":"ipv4","name":"ops","entries":[{"Grant":"permit","SequenceNumber":20},)"
        R"({"Grant":"permit","SequenceNumber":10}]})";
    EXPECT_THAT(message(turned), HasSubstr("entry 2: SequenceNumber: 10; expected a number greater than"));
    EXPECT_EQ(ask(R"({"call":"acl_show","family":"ipv4","name":"ops"})")["lines"].size(), 1U);
}

TEST_F(acl_service_test, an_empty_list_must_be_requested_explicitly) {
    ask(R"({"call":"acl_set","family":"ipv4","name":"ops","lines":["permit tcp any any"]})");
    audit.clear();
    for (const std::string& wrong :
         {std::string(R"("lines":[])"), std::string(R"("lines":["# nothing","remark more"])"),
          std::string(R"("entries":[])"), std::string(R"("lines":[],"empty":false)")}) {
        const std::string request = R"({"call":"acl_set","family":"ipv4","name":"ops",)" + wrong + '}';
        EXPECT_EQ(result(request), "refused") << wrong;
        EXPECT_THAT(message(request), HasSubstr("access list ops: no entries, nothing has been changed")) << wrong;
        EXPECT_THAT(message(request), HasSubstr("--empty")) << wrong;
    }
    ASSERT_EQ(audit.size(), 12U);
    EXPECT_THAT(audit[0], HasSubstr("call:=acl set, result:=refused, ipv4 ops, access list ops: no entries"));
    EXPECT_EQ(ask(R"({"call":"acl_show","family":"ipv4","name":"ops"})")["lines"].size(), 1U);
    EXPECT_EQ(result(R"({"call":"acl_set","family":"ipv4","name":"ops","lines":[],"empty":1})"), "usage");
    EXPECT_EQ(result(R"({"call":"acl_set","family":"ipv4","name":"ops","lines":[],"empty":true})"), "done");
    EXPECT_EQ(ask(R"({"call":"acl_show","family":"ipv4","name":"ops"})")["lines"].size(), 0U);
}

TEST_F(acl_service_test, a_refused_name_is_shown) {
    for (const std::string& name : {std::string(65, 'n'), std::string("a/b"), std::string("-a")}) {
        const std::string request = R"({"call":"acl_set","family":"ipv4","lines":[],"name":")" + name + "\"}";
        EXPECT_EQ(result(request), "refused") << name;
        EXPECT_THAT(message(request), HasSubstr(name));
    }
}

}  // namespace
