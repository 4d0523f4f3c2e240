// The names that the operator's tool gives for a number are those that the agent gives the number for.
#include "ssh_cfg_ctl/value_names.h"

#include <gtest/gtest.h>

#include "oper/session_mappings.h"

namespace {

struct mapping_row {
    const char* enumeration;
    int32_t (*number_of)(std::string_view name);
    int32_t values;
};

constexpr mapping_row mappings[] = {
    {"authen_type_en", authen_type_of, 8},  {"kex_name_en", kex_name_of, 13}, {"hostkey_type_en", hostkey_type_of, 9},
    {"cipher_type_en", cipher_type_of, 10}, {"mac_type_en", mac_type_of, 5},
};

TEST(value_names, go_there_and_back) {
    for (const mapping_row& row : mappings) {
        for (int32_t value = 0; value < row.values; value++) {
            const char* name = ctl_value_name(row.enumeration, value);
            ASSERT_NE(name, nullptr) << row.enumeration << ' ' << value;
            EXPECT_EQ(row.number_of(name), value) << row.enumeration << ' ' << name;
        }
        EXPECT_EQ(ctl_value_name(row.enumeration, row.values), nullptr) << row.enumeration;
    }
}

}  // namespace
