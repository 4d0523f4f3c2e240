// The names and their numbers are in appliers/golden/algorithm_tables.
#include "oper/session_mappings.h"

#include <gtest/gtest.h>

#include <string>

#include "ssh_cfg_ctl/value_names.h"

namespace {

struct mapping_case {
    const char* enumeration;
    int32_t (*number_of)(std::string_view name);
};

constexpr mapping_case mapping_cases[] = {
    {"authen_type_en", authen_type_of}, {"kex_name_en", kex_name_of}, {"hostkey_type_en", hostkey_type_of},
    {"cipher_type_en", cipher_type_of}, {"mac_type_en", mac_type_of},
};

class session_mappings_test : public testing::TestWithParam<mapping_case> {};

INSTANTIATE_TEST_SUITE_P(mappings, session_mappings_test, testing::ValuesIn(mapping_cases),
                         [](const auto& mapping) { return std::string(mapping.param.enumeration); });

}  // namespace

TEST_P(session_mappings_test, a_name_that_does_not_match_exactly_is_minus_one) {
    const char* first_name = ctl_value_name(GetParam().enumeration, 0);
    ASSERT_NE(first_name, nullptr);
    for (int32_t number = 0; ctl_value_name(GetParam().enumeration, number) != nullptr; number++) {
        const std::string name = ctl_value_name(GetParam().enumeration, number);
        for (const std::string& other : {name + ' ', ' ' + name, name.substr(1), name.substr(0, name.size() - 1)}) {
            EXPECT_EQ(GetParam().number_of(other), -1) << other;
        }
    }
    EXPECT_EQ(GetParam().number_of(""), -1);
    EXPECT_EQ(GetParam().number_of("none"), -1);
}

TEST(session_mappings, an_algorithm_that_records_cannot_express_is_minus_one) {
    EXPECT_EQ(kex_name_of("diffie-hellman-group18-sha512"), -1);
    EXPECT_EQ(mac_type_of("hmac-sha1-etm@openssh.com"), -1);
    EXPECT_EQ(hostkey_type_of("rsa-sha2-512-cert-v01@openssh.com"), -1);
}
