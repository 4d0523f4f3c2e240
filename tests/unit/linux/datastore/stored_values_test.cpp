#include <errno.h>

#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

class stored_values_test : public testing::Test {
  protected:
    void SetUp() override {
        memory = {};
        datastore_configure(&engine_in_memory, "/somewhere/datastore.db");
    }
    void TearDown() override { datastore_close(); }
};

TEST_F(stored_values_test, stores_the_values_of_services) {
    ASSERT_EQ(datastore_open(), PLATFORM_OK);
    std::string bytes;
    std::string key;
    EXPECT_EQ(datastore_private_get("vrf/blue", bytes), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(datastore_private_put("vrf/red", std::string_view("\0\1", 2)), PLATFORM_OK);
    EXPECT_EQ(datastore_private_put("vrf/blue", "2"), PLATFORM_OK);
    EXPECT_EQ(datastore_private_put("vrg", "3"), PLATFORM_OK);
    EXPECT_EQ(datastore_private_get("vrf/red", bytes), PLATFORM_OK);
    EXPECT_EQ(bytes, std::string("\0\1", 2));
    EXPECT_EQ(datastore_private_next("vrf/", "", key, bytes), PLATFORM_OK);
    EXPECT_EQ(key, "vrf/blue");
    EXPECT_EQ(datastore_private_next("vrf/", key, key, bytes), PLATFORM_OK);
    EXPECT_EQ(key, "vrf/red");
    EXPECT_EQ(datastore_private_next("vrf/", key, key, bytes), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(datastore_private_delete("vrf/red"), PLATFORM_OK);
    EXPECT_EQ(datastore_private_get("vrf/red", bytes), platform_status{DATASTORE_NO_SUCH_ITEM});
}

TEST_F(stored_values_test, are_not_part_of_the_configuration) {
    ASSERT_EQ(datastore_open(), PLATFORM_OK);
    std::string bytes;
    std::string key;
    EXPECT_EQ(datastore_private_put("/cfg/x", "1"), platform_status{EINVAL});
    EXPECT_EQ(datastore_private_put("", "1"), platform_status{EINVAL});
    EXPECT_EQ(datastore_private_get("/cfg/x", bytes), platform_status{EINVAL});
    EXPECT_EQ(datastore_private_delete("/cfg/x"), platform_status{EINVAL});
    EXPECT_EQ(datastore_private_next("", "", key, bytes), platform_status{EINVAL});
    EXPECT_TRUE(memory.items.empty());
}

TEST_F(stored_values_test, without_a_database_there_are_none) {
    std::string bytes;
    EXPECT_EQ(datastore_private_put("vrf/blue", "1"), platform_status{DATASTORE_UNAVAILABLE});
    EXPECT_EQ(datastore_private_get("vrf/blue", bytes), platform_status{DATASTORE_UNAVAILABLE});
    EXPECT_EQ(datastore_private_delete("vrf/blue"), platform_status{DATASTORE_UNAVAILABLE});
}

}  // namespace
}  // namespace datastore_test
