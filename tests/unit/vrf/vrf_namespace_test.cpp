#include "vrf/vrf_namespace.h"

#include "vrf_test.h"

namespace {

using vrf_namespace_test = vrf_test;

TEST_F(vrf_namespace_test, exists_if_its_file_does) {
    EXPECT_FALSE(vrf_namespace_exists("red"));
    add_namespace("red");
    EXPECT_TRUE(vrf_namespace_exists("red"));
    EXPECT_FALSE(vrf_namespace_exists("re"));
}

TEST_F(vrf_namespace_test, is_named_after_its_vrf) {
    char name[64];
    vrf_namespace_name("red", name, sizeof name);
    EXPECT_STREQ(name, "vrf-red");
}

}  // namespace
