#include "ssh_cfg_ctl/value_names.h"

#include <gtest/gtest.h>

namespace {

TEST(ctl_value_name, returns_the_names_of_enumeration_values) {
    EXPECT_STREQ(ctl_value_name("kex_name_en", 9), "curve25519-sha256");
    EXPECT_STREQ(ctl_value_name("cipher_type_en", 9), "chacha20-poly1305@openssh.com");
    EXPECT_STREQ(ctl_value_name("states_en", 2), "established");
    EXPECT_STREQ(ctl_value_name("openconfig_system_terminal_protocol_version_", 0), "v2");
}

TEST(ctl_value_name, returns_no_name_for_unknown_values) {
    EXPECT_EQ(ctl_value_name("kex_name_en", -1), nullptr);
    EXPECT_EQ(ctl_value_name("kex_name_en", 13), nullptr);
    EXPECT_EQ(ctl_value_name("kex_name_en", INT64_MIN), nullptr);
    EXPECT_EQ(ctl_value_name("version_en", 2), nullptr);
    EXPECT_EQ(ctl_value_name("", 0), nullptr);
    EXPECT_EQ(ctl_value_name("no_such_en", 0), nullptr);
}

}  // namespace
