#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake/fake_platform.h"
#include "platform/mpp.h"
#include "platform/vrf_table.h"

namespace {

using fake_platform::always;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(fake_calls, are_recorded_in_order_with_their_arguments) {
    mpp_init(MPP_SERVICE_NETCONF);
    mpp_vrf_set(MPP_SERVICE_SSH, "default");
    fake_platform::record_call("$ true");
    mpp_vrf_block("red");
    EXPECT_THAT(fake_platform::calls(),
                ElementsAre("mpp_init(64)", "mpp_vrf_set(1, default)", "$ true", "mpp_vrf_block(red)"));
    EXPECT_THAT(fake_platform::calls_of("mpp_vrf"), ElementsAre("mpp_vrf_set(1, default)", "mpp_vrf_block(red)"));
    EXPECT_EQ(fake_platform::count_calls("mpp_vrf_set"), 1u);
    EXPECT_EQ(fake_platform::count_calls("mpp_vrf_set(1, red)"), 0u);
    EXPECT_EQ(fake_platform::count_calls("mpp_vrf"), 0u);
    fake_platform::clear_calls();
    EXPECT_THAT(fake_platform::calls(), IsEmpty());
}

TEST(fake_calls, fail_as_often_as_requested) {
    fake_platform::fail("mpp_vrf_block", EIO, 2);
    EXPECT_EQ(mpp_vrf_block("red"), platform_status{EIO});
    EXPECT_FALSE(fake_platform::vrf_blocked("red"));
    EXPECT_EQ(mpp_vrf_block("blue"), platform_status{EIO});
    EXPECT_EQ(mpp_vrf_block("red"), PLATFORM_OK);
    EXPECT_TRUE(fake_platform::vrf_blocked("red"));
    EXPECT_EQ(fake_platform::calls().size(), 3u);
}

TEST(fake_calls, fail_from_a_later_call_on) {
    fake_platform::fail("mpp_init", EIO, always, 2);
    EXPECT_EQ(mpp_init(1), PLATFORM_OK);
    EXPECT_EQ(mpp_init(1), platform_status{EIO});
    EXPECT_EQ(mpp_init(64), platform_status{EIO});
    fake_platform::clear_failures();
    EXPECT_EQ(mpp_init(64), PLATFORM_OK);
}

TEST(fake_calls, a_single_call_can_fail) {
    fake_platform::fail("mpp_init(64)", EIO);
    fake_platform::fail("mpp_ini", ENOENT);
    EXPECT_EQ(mpp_init(1), PLATFORM_OK);
    EXPECT_EQ(mpp_init(64), platform_status{EIO});
}

// A test may let the first call fail with one status and the second with another.
TEST(fake_calls, failures_are_used_in_turn) {
    fake_platform::fail("mpp_init", EIO, 1);
    fake_platform::fail("mpp_init", ENOMEM, 1, 2);
    EXPECT_EQ(mpp_init(1), platform_status{EIO});
    EXPECT_EQ(mpp_init(1), platform_status{ENOMEM});
    EXPECT_EQ(mpp_init(1), PLATFORM_OK);
}

TEST(fake_calls, are_cleared_by_reset) {
    uint32_t id = 0;
    fake_platform::fail("mpp_close", EIO);
    mpp_init(1);
    mpp_vrf_block("red");
    vrf_table_lookup("red", &id);
    fake_platform::store(fake_platform::set_number("/a", 1));
    fake_platform::set_role(7);
    fake_platform::preset_debug_flag(8, true);
    fake_platform::reset();
    EXPECT_THAT(fake_platform::calls(), IsEmpty());
    EXPECT_FALSE(fake_platform::mpp_open(1));
    EXPECT_FALSE(fake_platform::vrf_blocked("red"));
    EXPECT_EQ(fake_platform::stored("/a"), std::nullopt);
    EXPECT_EQ(process_manager_role(), uint32_t{PROCESS_ROLE_PRIMARY});
}

TEST(fake_calls, recording_can_be_switched_off) {
    fake_platform::set_recording(false);
    mpp_init(1);
    fake_platform::fail("mpp_init", EIO, 1);
    EXPECT_EQ(mpp_init(1), platform_status{EIO});
    EXPECT_THAT(fake_platform::calls(), IsEmpty());
    fake_platform::set_recording(true);
    mpp_init(1);
    EXPECT_EQ(fake_platform::calls().size(), 1u);
}

}  // namespace
