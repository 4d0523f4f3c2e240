#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake/fake_platform.h"
#include "platform/file_system_list.h"
#include "platform/mpp.h"
#include "platform/node_identity.h"
#include "platform/vrf_table.h"

namespace {

TEST(fake_process_node_mpp, protection_records_its_state) {
    EXPECT_EQ(mpp_init(MPP_SERVICE_SSH), PLATFORM_OK);
    EXPECT_TRUE(fake_platform::mpp_open(MPP_SERVICE_SSH));
    mpp_vrf_set(MPP_SERVICE_SSH, "red");
    EXPECT_TRUE(fake_platform::vrf_set(MPP_SERVICE_SSH, "red"));
    EXPECT_FALSE(fake_platform::vrf_set(MPP_SERVICE_NETCONF, "red"));
    mpp_vrf_unset(MPP_SERVICE_SSH, "red");
    EXPECT_FALSE(fake_platform::vrf_set(MPP_SERVICE_SSH, "red"));
    mpp_vrf_nft_init("red");
    EXPECT_TRUE(fake_platform::vrf_initialised("red"));
    mpp_vrf_block("red");
    EXPECT_TRUE(fake_platform::vrf_blocked("red"));
    EXPECT_EQ(mpp_vrf_unblock("red"), PLATFORM_OK);
    EXPECT_EQ(mpp_vrf_unblock("red"), PLATFORM_OK);
    mpp_service_block(MPP_SERVICE_SSH, MPP_FAMILY_IPV6, "red");
    EXPECT_TRUE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV6, "red"));
    EXPECT_FALSE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"));
    mpp_service_unblock(MPP_SERVICE_SSH, MPP_FAMILY_IPV6, "red");
    EXPECT_FALSE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV6, "red"));
    EXPECT_FALSE(fake_platform::vrf_blocked("red"));
    mpp_namespace_created("vrf-red");
    EXPECT_TRUE(fake_platform::namespace_announced("vrf-red"));
    mpp_namespace_deleted("vrf-red");
    EXPECT_FALSE(fake_platform::namespace_announced("vrf-red"));
    mpp_close(MPP_SERVICE_SSH);
    mpp_close(MPP_SERVICE_SSH);
    EXPECT_FALSE(fake_platform::mpp_open(MPP_SERVICE_SSH));
}

TEST(fake_process_node_mpp, every_protection_call_can_fail_and_then_does_nothing) {
    for (const char* operation :
         {"mpp_init", "mpp_vrf_set", "mpp_vrf_unset", "mpp_vrf_nft_init", "mpp_vrf_block", "mpp_vrf_unblock",
          "mpp_service_block", "mpp_service_unblock", "mpp_namespace_created", "mpp_namespace_deleted"}) {
        fake_platform::fail(operation, EIO);
    }
    const platform_status failed = EIO;
    EXPECT_EQ(mpp_init(1), failed);
    EXPECT_EQ(mpp_vrf_set(1, "red"), failed);
    EXPECT_EQ(mpp_vrf_unset(1, "red"), failed);
    EXPECT_EQ(mpp_vrf_nft_init("red"), failed);
    EXPECT_EQ(mpp_vrf_block("red"), failed);
    EXPECT_EQ(mpp_vrf_unblock("red"), failed);
    EXPECT_EQ(mpp_service_block(1, 4, "red"), failed);
    EXPECT_EQ(mpp_service_unblock(1, 4, "red"), failed);
    EXPECT_EQ(mpp_namespace_created("vrf-red"), failed);
    EXPECT_EQ(mpp_namespace_deleted("vrf-red"), failed);
    EXPECT_FALSE(fake_platform::mpp_open(1));
    EXPECT_FALSE(fake_platform::vrf_set(1, "red"));
    EXPECT_FALSE(fake_platform::namespace_announced("vrf-red"));
}

TEST(fake_process_node_mpp, vrfs_have_permanent_numbers) {
    uint32_t red = 0;
    uint32_t blue = 0;
    uint32_t again = 0;
    fake_platform::set_vrf_id("green", 0xffffffff);
    vrf_table_lookup("red", &red);
    vrf_table_lookup("blue", &blue);
    vrf_table_lookup("red", &again);
    EXPECT_NE(red, blue);
    EXPECT_EQ(red, again);
    vrf_table_lookup("green", &again);
    EXPECT_EQ(again, 0xffffffffu);
    fake_platform::fail("vrf_table_lookup(red)", ENOENT);
    EXPECT_EQ(vrf_table_lookup("red", &again), platform_status{ENOENT});
    EXPECT_EQ(again, 0xffffffffu);
}

TEST(fake_process_node_mpp, the_process_manager_reports_the_configured_values) {
    EXPECT_EQ(process_manager_role(), uint32_t{PROCESS_ROLE_PRIMARY});
    EXPECT_EQ(process_manager_respawn_count(), 1u);
    fake_platform::set_role(2);
    fake_platform::set_respawn_count(3);
    EXPECT_EQ(process_manager_role(), 2u);
    EXPECT_EQ(process_manager_respawn_count(), 3u);
    EXPECT_EQ(process_manager_wait_primary(), 0);
    fake_platform::fail("process_manager_wait_primary", EINTR);
    EXPECT_EQ(process_manager_wait_primary(), -1);
    EXPECT_EQ(errno, EINTR);
    process_manager_ready();
    EXPECT_EQ(fake_platform::count_calls("process_manager_ready"), 1u);
}

TEST(fake_process_node_mpp, the_node_has_a_number_and_a_name) {
    uint32_t id = 0;
    char name[8] = "";
    fake_platform::set_node(5, "node-five");
    EXPECT_EQ(node_identity_id(&id), PLATFORM_OK);
    EXPECT_EQ(id, 5u);
    EXPECT_EQ(node_identity_name(id, name, sizeof name), PLATFORM_OK);
    EXPECT_STREQ(name, "node-fi");
    EXPECT_EQ(node_identity_name(99, name, sizeof name), platform_status{ENOENT});
}

TEST(fake_process_node_mpp, file_systems_are_listed) {
    fake_platform::set_file_systems({"a:", "b:"});
    const char* const* names = file_system_list_get();
    ASSERT_NE(names, nullptr);
    EXPECT_STREQ(names[0], "a:");
    EXPECT_STREQ(names[1], "b:");
    EXPECT_EQ(names[2], nullptr);
    fake_platform::fail("file_system_list_get", ENOENT);
    EXPECT_EQ(file_system_list_get(), nullptr);
}

}  // namespace
