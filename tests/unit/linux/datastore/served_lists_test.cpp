#include "linux/datastore/served_lists.h"

#include <errno.h>

#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

platform_status source(std::string_view path, std::vector<datastore_list_entry>& entries) {
    if (path != "inside/") {
        return DATASTORE_NO_SUCH_LIST;
    }
    entries = {{"20", "second"}, {"10", "first"}, {"30", ""}};
    return PLATFORM_OK;
}

platform_status failing_source(std::string_view, std::vector<datastore_list_entry>&) {
    return EIO;
}

class served_lists_test : public database_test {
  protected:
    void SetUp() override {
        database_test::SetUp();
        datastore_serve_lists("/oper/test/lists/", source);
        lists = bind("/oper/test/lists/");
    }
    void TearDown() override {
        datastore_list_free(list);
        database_test::TearDown();
    }

    datastore_binding* lists = nullptr;
    datastore_list* list = nullptr;
    uint32_t found = 0;
};

TEST_F(served_lists_test, are_in_the_order_of_their_source) {
    ASSERT_EQ(datastore_list_get(lists, "inside/", -1, &list, &found), PLATFORM_OK);
    ASSERT_EQ(found, 3u);
    EXPECT_STREQ(datastore_list_name(list, 0), "20");
    const void* record = nullptr;
    size_t size = 0;
    ASSERT_EQ(datastore_list_fetch(list, 1, &record, &size), PLATFORM_OK);
    EXPECT_EQ(std::string(static_cast<const char*>(record), size), "first");
    EXPECT_EQ(datastore_list_fetch(list, 2, &record, &size), platform_status{DATASTORE_NO_SUCH_ITEM});
}

TEST_F(served_lists_test, are_limited_to_the_requested_number) {
    ASSERT_EQ(datastore_list_get(lists, "inside/", 2, &list, &found), PLATFORM_OK);
    EXPECT_EQ(found, 2u);
    EXPECT_EQ(datastore_list_name(list, 2), nullptr);
}

TEST_F(served_lists_test, return_the_status_of_their_source) {
    EXPECT_EQ(datastore_list_get(lists, "outside/", -1, &list, &found), platform_status{DATASTORE_NO_SUCH_LIST});
    datastore_serve_lists("/oper/test/lists/", failing_source);
    EXPECT_EQ(datastore_list_get(lists, "inside/", -1, &list, &found), platform_status{EIO});
    EXPECT_EQ(list, nullptr);
}

TEST_F(served_lists_test, are_visible_only_from_a_binding_above) {
    ASSERT_EQ(datastore_list_get(bind("/oper/"), "test/lists/inside/", -1, &list, &found), PLATFORM_OK);
    EXPECT_EQ(found, 3u);
    datastore_list* other = nullptr;
    EXPECT_EQ(datastore_list_get(bind("/oper/test/"), "inside/", -1, &other, &found),
              platform_status{DATASTORE_NO_SUCH_TREE});
}

TEST_F(served_lists_test, a_withdrawn_list_is_read_from_the_datastore_again) {
    std::vector<datastore_list_entry> entries;
    platform_status status = PLATFORM_OK;
    ASSERT_TRUE(datastore_served_list("/oper/test/lists/whole/", entries, status));
    datastore_withdraw_lists("/oper/test/");
    EXPECT_TRUE(datastore_served_list("/oper/test/lists/whole/", entries, status)) << "a name in another tree";
    datastore_withdraw_lists("/oper/test/lists/");
    EXPECT_FALSE(datastore_served_list("/oper/test/lists/whole/", entries, status));
    datastore_withdraw_lists("/oper/test/lists/");
}

}  // namespace
}  // namespace datastore_test
