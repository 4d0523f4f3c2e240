#include "vrf/acl_state.h"

#include <cerrno>

#include "core/text.h"
#include "platform/mpp.h"
#include "vrf/acl_types.h"
#include "vrf_test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct acl_case {
    uint32_t type;
    const char* text;
    uint32_t service;
    uint32_t family;
    char (vrf_node::*name)[acl_name_size];
};

const acl_case acl_cases[] = {
    {acl_ssh_v4, "ssh ipv4", MPP_SERVICE_SSH, MPP_FAMILY_IPV4, &vrf_node::ssh_v4_acl},
    {acl_netconf_v4, "netconf ipv4", MPP_SERVICE_NETCONF, MPP_FAMILY_IPV4, &vrf_node::netconf_v4_acl},
    {acl_ssh_v6, "ssh ipv6", MPP_SERVICE_SSH, MPP_FAMILY_IPV6, &vrf_node::ssh_v6_acl},
    {acl_netconf_v6, "netconf ipv6", MPP_SERVICE_NETCONF, MPP_FAMILY_IPV6, &vrf_node::netconf_v6_acl},
};

/// Each list has a name of one character.
class acl_state_test : public vrf_test, public testing::WithParamInterface<acl_case> {
  protected:
    const acl_case row = GetParam();
    const uint32_t bit = 1U << row.type;
    vrf_node* node = create_vrf_node("red");
    const std::string service_and_family = std::to_string(row.service) + ", " + std::to_string(row.family) + ", red)";
    const std::string subject = std::string("rules red ") + row.text;

    acl_state_test() {
        add_namespace("red");
        forget();
    }

    void name_list(const char* name) { copy_text(node->*row.name, acl_name_size, name); }

    bool is_blocked() const { return fake_platform::service_blocked(row.service, row.family, "red"); }

    /// The state of the type, and nothing of the others.
    void expect_state(bool attached, bool failed, bool blocked) {
        EXPECT_EQ(node->attached_acls, attached ? bit : 0U);
        EXPECT_EQ(node->failed_acls, failed ? bit : 0U);
        EXPECT_EQ(node->blocked_acls, blocked ? bit : 0U);
        EXPECT_EQ(is_blocked(), blocked);
        EXPECT_EQ(fake_platform::is_not_in_force(subject), failed);
    }
};

INSTANTIATE_TEST_SUITE_P(types, acl_state_test, testing::ValuesIn(acl_cases), [](const auto& instance) {
    std::string name = instance.param.text;
    name[name.find(' ')] = '_';
    return name;
});

TEST_P(acl_state_test, a_named_list_is_missing_until_it_is_loaded) {
    EXPECT_FALSE(acl_is_missing(*node, row.type));
    EXPECT_FALSE(any_acl_failed(*node));
    name_list("a");
    EXPECT_STREQ(acl_name_of(*node, row.type), "a");
    EXPECT_TRUE(acl_is_missing(*node, row.type));
    EXPECT_TRUE(acl_is_failed(*node, row.type));
    EXPECT_TRUE(any_acl_failed(*node));
    acl_rules_in_force(node, row.type);
    EXPECT_FALSE(acl_is_missing(*node, row.type));
    EXPECT_FALSE(any_acl_failed(*node));
    expect_state(true, false, false);
}

TEST_P(acl_state_test, rules_without_a_list_are_not_attached) {
    name_list("a");
    acl_rules_in_force(node, row.type);
    name_list("");
    acl_rules_in_force(node, row.type);
    expect_state(false, false, false);
}

TEST_P(acl_state_test, failed_rules_are_reported_until_they_are_in_force) {
    acl_rules_failed(node, row.type, "because");
    EXPECT_THAT(fake_platform::not_in_force(), ElementsAre(fake_platform::unenforced{subject, "because"}));
    EXPECT_TRUE(acl_is_failed(*node, row.type));
    EXPECT_TRUE(any_acl_failed(*node));
    expect_state(false, true, false);
    acl_rules_in_force(node, row.type);
    EXPECT_FALSE(acl_is_failed(*node, row.type));
    expect_state(false, false, false);
}

TEST_P(acl_state_test, only_a_missing_list_blocks_its_service) {
    block_without_acl(node, row.type);
    EXPECT_THAT(trail(), IsEmpty());
    name_list("a");
    block_without_acl(node, row.type);
    EXPECT_THAT(trail(), ElementsAre("mpp_service_block(" + service_and_family));
    expect_state(false, false, true);
    acl_rules_in_force(node, row.type);
    expect_state(true, false, false);
    forget();
    block_without_acl(node, row.type);
    acl_rules_in_force(node, row.type);
    EXPECT_THAT(fake_platform::calls_of("mpp_"), IsEmpty());
}

TEST_P(acl_state_test, missing_lists_are_settled_once) {
    name_list("a");
    settle_acls(node);
    EXPECT_THAT(trail(), ElementsAre("mpp_service_block(" + service_and_family,
                                     "enforcement_failed(" + subject + ", access list a has not been loaded)"));
    expect_state(false, true, true);
    forget();
    settle_acls(node);
    EXPECT_THAT(trail(), IsEmpty());
    acl_rules_failed(node, row.type, "because");
    settle_acls(node);
    EXPECT_EQ(fake_platform::not_in_force()[0].reason, "because");
}

TEST_P(acl_state_test, without_a_namespace_a_list_waits) {
    remove_namespace("red");
    name_list("a");
    errno = EEXIST;
    settle_acls(node);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_THAT(trail(), IsEmpty());
}

TEST_P(acl_state_test, a_detached_list_blocks_nothing) {
    name_list("a");
    block_without_acl(node, row.type);
    name_list("");
    acl_detached(node, row.type);
    expect_state(false, false, false);
}

TEST_P(acl_state_test, rules_that_could_not_be_removed_remain_reported) {
    name_list("a");
    acl_rules_in_force(node, row.type);
    name_list("b");
    node->attached_acls = 0;
    block_without_acl(node, row.type);
    node->attached_acls = bit;
    acl_rules_failed(node, row.type, "not removed");
    name_list("");
    acl_detached(node, row.type);
    expect_state(false, true, false);
}

TEST_P(acl_state_test, everything_is_forgotten_with_the_namespace) {
    name_list("a");
    settle_acls(node);
    forget_acl_rules(node);
    expect_state(false, false, false);
    acl_rules_in_force(node, row.type);
    forget_acl_rules(node);
    expect_state(false, false, false);
}

TEST_P(acl_state_test, a_service_that_cannot_be_blocked_or_unblocked_is_traced) {
    fake_platform::fail("mpp_service_block", EIO);
    fake_platform::fail("mpp_service_unblock", EIO);
    name_list("a");
    block_without_acl(node, row.type);
    acl_rules_in_force(node, row.type);
    const auto lines = fake_platform::trace_lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_STREQ(lines[0].point->name, "vrf.service_block");
    EXPECT_STREQ(lines[1].point->name, "vrf.service_unblock");
    for (const auto& line : lines) {
        EXPECT_THAT(line.arguments, ElementsAre("red", std::to_string(row.type), std::to_string(EIO)));
    }
}

}  // namespace
