#include "core/fault_points.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "../agent_test.h"
#include "core/start_up.h"

namespace {

using fault_points_test = agent_test;

const char* const texts[] = {
    "Enable Bag Decode failed fault point",
    "Enable Datastore Datalist failed fault point",
    "Enable Datastore Set failed fault point",
    "Enable Datastore Get failed fault point",
    "Enable Datastore Delete failed fault point",
    "Enable Datastore Pack failed fault point",
    "Enable Datastore Unpack failed fault point",
    "Enable Datastore Bind failed fault point",
    "Enable Malloc failed fault point",
    "Enable Semaphore failed fault point",
    "Enable Number Value failure",
    "Enable String Value failure",
    "Enable Status failure",
    "Enable ship registration failure",
    "Enable Structure failure",
    "Enable mpp vrf set failure",
    "Enable vrf bind failure",
    "Enable mpp set failure",
    "Enable listen failure",
    "Enable listen failure for v6 socket",
    "Enable packet transmit failure",
    "Enable packet receive failure",
    "Enable aaa failure",
    "Enable evm failure",
    "Enable init failure",
    "Enable crypto errors",
    "Enable argument errors",
    "Enable scp read/write errors",
    "Enable scp other errors",
};

TEST_F(fault_points_test, are_listed_in_order_and_off) {
    ASSERT_EQ(std::size(texts), fault_point_count);
    for (uint32_t i = 0; i < fault_point_count; i++) {
        EXPECT_STREQ(fault_points[i].text, texts[i]);
        EXPECT_EQ(fault_points[i].enabled, 0u);
    }
}

TEST_F(fault_points_test, are_registered_with_the_service_on_request) {
    EXPECT_EQ(register_fault_points(), PLATFORM_OK);
    EXPECT_EQ(fake_platform::count_calls("fault_injection_register(ssh, 29)"), 1u);
    fake_platform::fail("fault_injection_register", ENOTSUP);
    EXPECT_EQ(register_fault_points(), uint32_t{ENOTSUP});
}

}  // namespace
