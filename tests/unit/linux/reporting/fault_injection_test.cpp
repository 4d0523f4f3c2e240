#include "platform/fault_injection.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(fault_injection_test, is_not_supported) {
    fault_point point = {"Enable something", 0};
    EXPECT_EQ(static_cast<platform_status>(ENOTSUP), fault_injection_register("ssh", &point, 1));
    EXPECT_EQ(0u, point.enabled);
}

}  // namespace
