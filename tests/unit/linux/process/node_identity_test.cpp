#include "platform/node_identity.h"

#include "linux/process/paths.h"
#include "unit/linux/platform_test_support.h"

using platform_test::write_file;

namespace {

class node_identity_test : public testing::Test {
  protected:
    void TearDown() override { std::filesystem::remove(platform_config_file); }

    std::string name_of(uint32_t id, size_t size = NODE_NAME_SIZE) {
        std::vector<char> name(size + 1, '#');
        EXPECT_EQ(0u, node_identity_name(id, name.data(), size));
        EXPECT_EQ('#', name[size]) << "written beyond the buffer";
        return name.data();
    }
};

TEST_F(node_identity_test, the_number_comes_from_the_platforms_file) {
    uint32_t id = 99;
    EXPECT_EQ(0u, node_identity_id(&id));
    EXPECT_EQ(0u, id);
    write_file(platform_config_file, "node_number = 17\n");
    EXPECT_EQ(0u, node_identity_id(&id));
    EXPECT_EQ(17u, id);
}

TEST_F(node_identity_test, the_name_is_the_hosts_without_domain) {
    ASSERT_EQ(0, sethostname("router7.example.net", 19));
    EXPECT_EQ("router7", name_of(0));
    ASSERT_EQ(0, sethostname("router7", 7));
    EXPECT_EQ("router7", name_of(0));
}

TEST_F(node_identity_test, the_name_is_truncated_to_the_buffer) {
    ASSERT_EQ(0, sethostname("a-host-name-of-thirty-characte", 30));
    EXPECT_EQ("a-host-name-of-thir", name_of(0));
    EXPECT_EQ("a", name_of(0, 2));
    EXPECT_EQ("", name_of(0, 1));
    ASSERT_EQ(0, sethostname("abcd.example", 12));
    EXPECT_EQ("abcd", name_of(0, 5));
    EXPECT_EQ("abc", name_of(0, 4));
}

TEST_F(node_identity_test, other_nodes_have_no_name) {
    char name[NODE_NAME_SIZE] = "untouched";
    EXPECT_EQ(static_cast<platform_status>(ENOENT), node_identity_name(1, name, sizeof name));
    EXPECT_EQ(static_cast<platform_status>(EINVAL), node_identity_name(0, name, 0));
    EXPECT_EQ(static_cast<platform_status>(EINVAL), node_identity_name(0, nullptr, 20));
    EXPECT_EQ(static_cast<platform_status>(EINVAL), node_identity_id(nullptr));
    EXPECT_STREQ("untouched", name);
}

}  // namespace
