#include "platform/datastore.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "fake/fake_platform.h"

namespace {

using fake_platform::remove;
using fake_platform::set_number;
using fake_platform::set_text;
using fake_platform::set_tuple;
using fake_platform::store;
using testing::ElementsAre;

class fake_datastore_test : public testing::Test {
  protected:
    static datastore_binding* bind(const char* path) {
        datastore_binding* binding = nullptr;
        EXPECT_EQ(datastore_bind(path, &binding), PLATFORM_OK);
        return binding;
    }
};

TEST_F(fake_datastore_test, items_are_read_by_kind) {
    store(set_number("/cfg/a/number", 7));
    store(set_text("/cfg/a/text", "word"));
    store(set_tuple("/cfg/a/tuple", "%d%S%S", {5, std::nullopt, "acl"}));
    datastore_binding* binding = bind("/cfg/a/");
    uint32_t number = 0;
    size_t size = 0;
    EXPECT_EQ(datastore_item_get(binding, "number", &number, sizeof number, &size), PLATFORM_OK);
    EXPECT_EQ(number, 7u);
    EXPECT_EQ(size, 4u);
    char text[5];
    EXPECT_EQ(datastore_item_get(binding, "text", text, sizeof text, nullptr), PLATFORM_OK);
    EXPECT_STREQ(text, "word");
    char packed[64];
    EXPECT_EQ(datastore_item_get(binding, "tuple", packed, sizeof packed, &size), PLATFORM_OK);
    tuple_field fields[3];
    uint32_t mask = 0;
    EXPECT_EQ(tuple_decode_mask(packed, size, "%d%S%S", fields, 3, &mask), PLATFORM_OK);
    EXPECT_EQ(mask, 5u);
    EXPECT_EQ(fields[0].number, 5);
    EXPECT_STREQ(fields[2].text, "acl");
}

TEST_F(fake_datastore_test, a_missing_item_and_a_small_buffer_are_reported) {
    store(set_text("/cfg/a/text", "word"));
    datastore_binding* binding = bind("/cfg/a/");
    char text[4] = "old";
    size_t size = 0;
    EXPECT_EQ(datastore_item_get(binding, "none", text, sizeof text, &size), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(datastore_item_get(binding, "text", text, sizeof text, &size), platform_status{ENOSPC});
    EXPECT_STREQ(text, "old");
    EXPECT_EQ(datastore_item_get(binding, "text", nullptr, 0, nullptr), PLATFORM_OK);
    EXPECT_EQ(datastore_item_get(binding, "none", nullptr, 0, nullptr), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_THAT(fake_platform::calls_of("datastore_item_get(/cfg/a/text"), testing::SizeIs(2));
}

TEST_F(fake_datastore_test, an_invalid_tuple_is_refused_immediately) {
    EXPECT_THROW(set_tuple("/a", "%d", {std::string("text")}), std::invalid_argument);
    EXPECT_THROW(set_tuple("/a", "%d", {1, 2}), std::invalid_argument);
    EXPECT_EQ(set_tuple("/a", "%d%s%d", {1}).new_value, set_tuple("/a", "%d%s%d", {1, {}, {}}).new_value);
}

TEST_F(fake_datastore_test, bindings_are_counted) {
    datastore_binding* first = bind("/cfg/a/");
    datastore_binding* second = bind("/cfg/b/");
    EXPECT_EQ(fake_platform::bindings(), 2u);
    const auto apply = [](const datastore_backend_call*, void*) -> platform_status { return PLATFORM_OK; };
    EXPECT_EQ(datastore_register_verification(first, "", 7, nullptr, apply, nullptr, nullptr), PLATFORM_OK);
    EXPECT_EQ(datastore_unbind(first), PLATFORM_OK);
    EXPECT_EQ(fake_platform::bindings("/cfg/a/"), 0u);
    EXPECT_EQ(fake_platform::bindings("/cfg/b/"), 1u);
    EXPECT_EQ(fake_platform::verifications(), 0u);
    EXPECT_EQ(datastore_unbind(nullptr), PLATFORM_OK);
    EXPECT_EQ(datastore_unbind(second), PLATFORM_OK);
    EXPECT_THAT(fake_platform::calls_of("datastore_unbind"),
                ElementsAre("datastore_unbind(/cfg/a/)", "datastore_unbind(NULL)", "datastore_unbind(/cfg/b/)"));
}

TEST_F(fake_datastore_test, a_list_contains_the_names_directly_below) {
    store(set_number("/cfg/users/b/level", 1));
    store(set_number("/cfg/users/a/level", 1));
    store(set_number("/cfg/users/a/secret", 1));
    store(set_number("/cfg/users2/c", 1));
    datastore_binding* binding = bind("/cfg/");
    datastore_list* list = nullptr;
    uint32_t found = 0;
    ASSERT_EQ(datastore_list_get(binding, "users/", -1, &list, &found), PLATFORM_OK);
    ASSERT_EQ(found, 2u);
    EXPECT_STREQ(datastore_list_name(list, 0), "a");
    EXPECT_STREQ(datastore_list_name(list, 1), "b");
    EXPECT_EQ(datastore_list_name(list, 2), nullptr);
    datastore_list_free(list);
    ASSERT_EQ(datastore_list_get(binding, "users/", 1, &list, &found), PLATFORM_OK);
    EXPECT_EQ(found, 1u);
    datastore_list_free(list);
    datastore_list_free(nullptr);
    EXPECT_EQ(datastore_list_get(binding, "none/", -1, &list, &found), platform_status{DATASTORE_NO_SUCH_LIST});
    EXPECT_EQ(datastore_list_get(bind("/empty/"), "none/", -1, &list, &found), platform_status{DATASTORE_NO_SUCH_TREE});
    EXPECT_EQ(datastore_list_get(binding, "users", -1, &list, &found), platform_status{EINVAL});
}

TEST_F(fake_datastore_test, a_listed_item_has_its_value_as_record) {
    store(set_text("/cfg/names/a", "one"));
    store(set_text("/cfg/names/b/c", "two"));
    datastore_list* list = nullptr;
    uint32_t found = 0;
    ASSERT_EQ(datastore_list_get(bind("/cfg/"), "names/", -1, &list, &found), PLATFORM_OK);
    const void* record = nullptr;
    size_t size = 0;
    EXPECT_EQ(datastore_list_fetch(list, 0, &record, &size), PLATFORM_OK);
    EXPECT_STREQ(static_cast<const char*>(record), "one");
    EXPECT_EQ(datastore_list_fetch(list, 1, &record, &size), platform_status{DATASTORE_NO_SUCH_ITEM});
    datastore_list_free(list);
}

TEST_F(fake_datastore_test, invalid_registrations_are_refused) {
    datastore_binding* binding = bind("/cfg/");
    datastore_binding* none = nullptr;
    EXPECT_EQ(datastore_bind("/cfg", &none), platform_status{EINVAL});
    EXPECT_EQ(datastore_bind("cfg/", &none), platform_status{EINVAL});
    EXPECT_EQ(datastore_register_verification(binding, "", 7, nullptr, nullptr, nullptr, nullptr),
              platform_status{EINVAL});
    const auto notice = [](const datastore_notification*, void*) {};
    EXPECT_EQ(datastore_register_notification(binding, "a", 8, notice, nullptr, nullptr), platform_status{EINVAL});
    EXPECT_EQ(datastore_register_notification(binding, "a", 0, notice, nullptr, nullptr), platform_status{EINVAL});
    EXPECT_EQ(datastore_register_notification(binding, "a", 7, nullptr, nullptr, nullptr), platform_status{EINVAL});
}

TEST_F(fake_datastore_test, a_scripted_list_has_records) {
    fake_platform::set_list("/oper/acl/list/one/", {{"10", "first"}, {"20", "second"}});
    datastore_binding* binding = bind("/oper/acl/list/");
    datastore_list* list = nullptr;
    uint32_t found = 0;
    ASSERT_EQ(datastore_list_get(binding, "one/", -1, &list, &found), PLATFORM_OK);
    ASSERT_EQ(found, 2u);
    const void* record = nullptr;
    size_t size = 0;
    EXPECT_EQ(datastore_list_fetch(list, 1, &record, &size), PLATFORM_OK);
    EXPECT_EQ(std::string(static_cast<const char*>(record), size), "second");
    EXPECT_EQ(datastore_list_fetch(list, 2, &record, &size), platform_status{DATASTORE_NO_SUCH_ITEM});
    datastore_list_free(list);
    fake_platform::fail("datastore_list_get", DATASTORE_NO_SUCH_TREE, 1);
    EXPECT_EQ(datastore_list_get(binding, "one/", -1, &list, &found), platform_status{DATASTORE_NO_SUCH_TREE});
    fake_platform::remove_list("/oper/acl/list/one/");
    EXPECT_EQ(datastore_list_get(binding, "one/", -1, &list, &found), platform_status{DATASTORE_NO_SUCH_TREE});
}

}  // namespace
