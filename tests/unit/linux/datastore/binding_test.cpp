#include <errno.h>

#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

using testing::ElementsAre;

class datastore_binding_test : public served_datastore_test {
  protected:
    void SetUp() override {
        served_datastore_test::SetUp();
        const datastore_commit_result result =
            datastore_commit({{timeout_path, number(30)},
                              {vrf_path, datastore_fields()},
                              {"/cfg/gl/crypto/ssh/server/sshd/vrf/blue-2", datastore_fields()},
                              {"/cfg/gl/crypto/ssh/server/cmn/username/ann", true},
                              {"/cfg/gl/crypto/ssh/server/cmn/username/ann/keystr", text("ssh-rsa AAAA")},
                              {"/cfg/gl/crypto/ssh/server/cmn/username/ann-b/keystr", text("ssh-rsa BBBB")},
                              {"/cfg/gl/crypto/ssh/server/cmn/trustpoint/host", text("root-ca")}},
                             false);
        ASSERT_EQ(result.status, PLATFORM_OK) << result.message;
    }

    std::vector<std::string> names(datastore_binding* binding, const char* path, int32_t count = -1) {
        datastore_list* list = nullptr;
        uint32_t found = 0;
        EXPECT_EQ(datastore_list_get(binding, path, count, &list, &found), PLATFORM_OK);
        std::vector<std::string> result;
        for (uint32_t i = 0; i < found; i++) {
            result.emplace_back(datastore_list_name(list, i));
        }
        EXPECT_EQ(datastore_list_name(list, found), nullptr);
        datastore_list_free(list);
        return result;
    }
};

TEST_F(datastore_binding_test, accepts_absolute_paths_that_end_in_a_slash) {
    datastore_binding* binding = nullptr;
    for (const char* path : {"", "cfg/", "/cfg", "relative"}) {
        EXPECT_EQ(datastore_bind(path, &binding), platform_status{EINVAL}) << path;
    }
    EXPECT_EQ(datastore_bind(nullptr, &binding), platform_status{EINVAL});
    EXPECT_EQ(binding, nullptr);
    EXPECT_EQ(datastore_unbind(nullptr), PLATFORM_OK);
}

TEST_F(datastore_binding_test, reads_items_in_their_stored_form) {
    uint32_t value = 0;
    size_t size = 0;
    EXPECT_EQ(datastore_item_get(server, "cmn/timeout", &value, sizeof value, &size), PLATFORM_OK);
    EXPECT_EQ(value, 30u);
    EXPECT_EQ(size, 4u);
    char text_value[32];
    EXPECT_EQ(datastore_item_get(server, "cmn/trustpoint/host", text_value, sizeof text_value, nullptr), PLATFORM_OK);
    EXPECT_STREQ(text_value, "root-ca");
}

TEST_F(datastore_binding_test, reports_existence_and_size) {
    size_t size = 0;
    char small[7] = "xxxxxx";
    EXPECT_EQ(datastore_item_get(server, "cmn/timeout", nullptr, 0, nullptr), PLATFORM_OK);
    EXPECT_EQ(datastore_item_get(server, "cmn/rate_limit", nullptr, 0, nullptr),
              platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(datastore_item_get(server, "cmn", nullptr, 0, nullptr), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(datastore_item_get(server, "cmn/trustpoint/host", small, sizeof small, &size), platform_status{ENOSPC});
    EXPECT_EQ(size, 8u);
    EXPECT_STREQ(small, "xxxxxx");
}

TEST_F(datastore_binding_test, lists_names_once_and_in_byte_order) {
    EXPECT_THAT(names(server, "sshd/vrf/"), ElementsAre("blue", "blue-2"));
    EXPECT_THAT(names(server, ""), ElementsAre("cmn", "sshd"));
    EXPECT_THAT(names(server, "cmn/username/"), ElementsAre("ann", "ann-b"));
    EXPECT_THAT(names(server, "cmn/username/", 1), ElementsAre("ann"));
}

TEST_F(datastore_binding_test, returns_the_bytes_of_listed_items) {
    datastore_list* list = nullptr;
    uint32_t found = 0;
    ASSERT_EQ(datastore_list_get(server, "cmn/username/", -1, &list, &found), PLATFORM_OK);
    const void* record = nullptr;
    size_t size = 0;
    ASSERT_EQ(datastore_list_fetch(list, 0, &record, &size), PLATFORM_OK);
    EXPECT_EQ(std::string(static_cast<const char*>(record), size), std::string("\1\0\0\0", 4));
    EXPECT_EQ(datastore_list_fetch(list, 1, &record, &size), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(datastore_list_fetch(list, 2, &record, &size), platform_status{DATASTORE_NO_SUCH_ITEM});
    datastore_list_free(list);
    datastore_list_free(nullptr);
}

TEST_F(datastore_binding_test, distinguishes_a_missing_list_and_a_missing_tree) {
    datastore_list* list = nullptr;
    uint32_t found = 0;
    EXPECT_EQ(datastore_list_get(server, "sshd/vrf-netconf/", -1, &list, &found),
              platform_status{DATASTORE_NO_SUCH_LIST});
    EXPECT_EQ(datastore_list_get(bind("/oper/nothing/"), "list/", -1, &list, &found),
              platform_status{DATASTORE_NO_SUCH_TREE});
    EXPECT_EQ(datastore_list_get(server, "sshd/vrf", -1, &list, &found), platform_status{EINVAL});
    EXPECT_EQ(datastore_list_get(server, "sshd/vrf/", -2, &list, &found), platform_status{EINVAL});
    EXPECT_EQ(list, nullptr);
}

TEST_F(datastore_binding_test, reports_a_closed_database_as_not_available) {
    datastore_close();
    datastore_list* list = nullptr;
    uint32_t found = 0;
    EXPECT_EQ(datastore_item_get(server, "cmn/timeout", nullptr, 0, nullptr), platform_status{DATASTORE_UNAVAILABLE});
    EXPECT_EQ(datastore_list_get(server, "cmn/", -1, &list, &found), platform_status{DATASTORE_UNAVAILABLE});
}

}  // namespace
}  // namespace datastore_test
