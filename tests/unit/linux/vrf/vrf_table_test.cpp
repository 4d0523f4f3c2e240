#include "platform/vrf_table.h"

#include "linux/datastore/datastore_internal.h"
#include "linux/vrf/vrf_table_internal.h"
#include "unit/linux/platform_test_support.h"

namespace {

constexpr char database[] = "/tmp/vrf_table_test.db";

class vrf_table_test : public testing::Test {
  protected:
    void SetUp() override {
        remove_database();
        open();
    }
    void TearDown() override {
        datastore_close();
        remove_database();
    }
    void open() {
        datastore_configure(nullptr, database);
        ASSERT_EQ(0u, datastore_open());
    }
    void remove_database() {
        for (const char* suffix : {"", "-wal", "-shm"}) {
            std::filesystem::remove(std::string(database) + suffix);
        }
    }
    uint32_t id_of(const std::string& name) {
        uint32_t id = 0;
        EXPECT_EQ(0u, vrf_table_lookup(name.c_str(), &id)) << name;
        return id;
    }
};

TEST_F(vrf_table_test, gives_each_vrf_its_own_number) {
    EXPECT_EQ(0x60000000u, id_of("default"));
    EXPECT_EQ(0x60000001u, id_of("red"));
    EXPECT_EQ(0x60000002u, id_of("blue"));
    EXPECT_EQ(0x60000001u, id_of("red"));
    EXPECT_EQ(0x60000003u, id_of(std::string(32, 'x')));
}

TEST_F(vrf_table_test, a_number_survives_the_process) {
    EXPECT_EQ(0x60000001u, id_of("red"));
    EXPECT_EQ(0x60000002u, id_of("blue"));
    datastore_close();
    open();
    EXPECT_EQ(0x60000002u, id_of("blue"));
    EXPECT_EQ(0x60000003u, id_of("green"));
    EXPECT_EQ(0x60000001u, id_of("red"));
}

TEST_F(vrf_table_test, lists_all_by_number) {
    id_of("red");
    id_of("blue");
    std::vector<vrf_table_entry> entries;
    ASSERT_EQ(0u, vrf_table_list(entries));
    ASSERT_EQ(3u, entries.size());
    EXPECT_EQ("default", entries[0].name);
    EXPECT_EQ("red", entries[1].name);
    EXPECT_EQ("blue", entries[2].name);
    EXPECT_EQ(0x60000002u, entries[2].id);
}

TEST_F(vrf_table_test, refuses_an_invalid_vrf_name) {
    uint32_t id = 5;
    for (const std::string& name :
         {std::string(), std::string(33, 'x'), std::string("a b"), std::string("a/b"), std::string("a'b"),
          std::string("a;b"), std::string("$(reboot)"), std::string("-a"), std::string(".a"), std::string("a\nb")}) {
        EXPECT_EQ(static_cast<platform_status>(EINVAL), vrf_table_lookup(name.c_str(), &id)) << name;
    }
    EXPECT_EQ(static_cast<platform_status>(EINVAL), vrf_table_lookup(nullptr, &id));
    EXPECT_EQ(static_cast<platform_status>(EINVAL), vrf_table_lookup("red", nullptr));
    EXPECT_EQ(5u, id);
}

TEST_F(vrf_table_test, damaged_numbers_are_reported_and_never_reused) {
    for (const char* damaged : {"", "x", "12", "1610612737x", "4294967296", "1610612736", "-1"}) {
        ASSERT_EQ(0u, datastore_private_put("vrf/red", damaged));
        uint32_t id = 5;
        EXPECT_EQ(static_cast<platform_status>(EBADMSG), vrf_table_lookup("red", &id)) << damaged;
        EXPECT_EQ(static_cast<platform_status>(EBADMSG), vrf_table_lookup("blue", &id)) << damaged;
        EXPECT_EQ(5u, id);
    }
}

TEST_F(vrf_table_test, the_numbers_can_be_exhausted) {
    ASSERT_EQ(0u, datastore_private_put("vrf/red", std::to_string(VRF_ID_MAX)));
    uint32_t id = 5;
    EXPECT_EQ(static_cast<platform_status>(ENOSPC), vrf_table_lookup("blue", &id));
    EXPECT_EQ(static_cast<uint32_t>(VRF_ID_MAX), id_of("red"));
}

}  // namespace
