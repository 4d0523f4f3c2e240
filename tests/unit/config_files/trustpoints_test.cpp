#include "config_files/trustpoints.h"

#include <cstring>
#include <string>

#include "../agent_test.h"
#include "core/text.h"

namespace {

class trustpoints_state_test : public agent_test {
  protected:
    static void hold(const std::string& name) {
        copy_text(user_trustpoints[user_trustpoint_count++], trustpoint_size, name.c_str());
    }
};

TEST_F(trustpoints_state_test, initially_there_are_none) {
    char text[trustpoint_size] = "before";
    EXPECT_TRUE(join_user_trustpoints(text, sizeof text));
    EXPECT_STREQ(text, "");
    EXPECT_STREQ(host_trustpoint, "");
    EXPECT_EQ(user_trustpoint_count, 0u);
}

TEST_F(trustpoints_state_test, names_are_joined_in_slot_order) {
    hold("zeta");
    hold("alpha");
    hold("mu");
    char text[trustpoint_size];
    EXPECT_TRUE(join_user_trustpoints(text, sizeof text));
    EXPECT_STREQ(text, "zeta,alpha,mu");
}

TEST_F(trustpoints_state_test, a_list_that_is_too_long_is_truncated) {
    hold(std::string(100, 'a'));
    hold(std::string(100, 'b'));
    hold("c");
    char text[trustpoint_size];
    EXPECT_FALSE(join_user_trustpoints(text, sizeof text));
    EXPECT_EQ(std::string(text), std::string(100, 'a') + "," + std::string(26, 'b'));
}

// Ten of the longest names, the commas between them, and NUL.
TEST_F(trustpoints_state_test, the_longest_list_has_1279_characters) {
    for (uint32_t i = 0; i < user_trustpoint_max; i++) {
        hold(std::string(127, static_cast<char>('a' + i)));
    }
    char text[1289];
    EXPECT_TRUE(join_user_trustpoints(text, sizeof text));
    EXPECT_EQ(std::strlen(text), 1279u);
}

}  // namespace
