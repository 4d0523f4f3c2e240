#include "reconcile/access_rules.h"

#include <cerrno>
#include <filesystem>
#include <map>

#include "../acl/acl_test.h"
#include "platform/mpp.h"
#include "platform/packet_filter.h"
#include "reconciliation_support.h"

namespace {

using fake_platform::difference;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr packet_filter_finding nothing_loaded = {PACKET_FILTER_DIFFERS, 0, 3};
constexpr packet_filter_finding as_wanted = {PACKET_FILTER_AS_WANTED, 3, 3};

/// The list "ops" protects SSH over IPv4 in the VRF red.
class access_rules_test : public reconciliation_test {
  protected:
    access_rules_test() {
        register_acl_entries();
        fake_platform::set_list("/oper/ipv4-acl/gl/show/access-list/ops/sequencetable/",
                                {{"10", encoded(acl_service_ipv4_entry_descriptor(), ipv4_entry())}});
        fake_platform::store(red_with("ops"));
        fake_platform::set_packet_filter([this](const packet_filter_table& table) { return look(table); });
    }

    static fake_platform::change red_with(const fake_platform::field& list) {
        return fake_platform::set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/red", "%d%S%S",
                                        {std::nullopt, list, std::nullopt});
    }

    packet_filter_finding look(const packet_filter_table& table) {
        const std::string place = std::string(table.vrf_name) + " " + table.table;
        asked[place] = table.commands != nullptr ? table.commands : "";
        const auto found = kernel.find(place);
        return found != kernel.end() ? found->second : packet_filter_finding{PACKET_FILTER_AS_WANTED, 0, 0};
    }

    /// The kernel has what is loaded from now on.
    void load_works(const std::string& place) {
        stub_commands::set_hook("ip netns exec", "echo loaded >> /stub_commands/loads");
        fake_platform::set_packet_filter([this, place](const packet_filter_table& table) {
            const bool loaded = std::filesystem::exists("/stub_commands/loads");
            const packet_filter_finding found = look(table);
            return loaded && place == std::string(table.vrf_name) + " " + table.table ? as_wanted : found;
        });
    }

    static std::vector<std::string> loads() { return stub_commands::log_of("ip netns exec"); }

    std::map<std::string, packet_filter_finding> kernel;
    std::map<std::string, std::string> asked;  ///< the commands for each table asked about
};

TEST_F(access_rules_test, every_table_of_every_namespace_is_asked_about) {
    start();
    EXPECT_THAT(fake_platform::reconcile(false).differences, IsEmpty());
    EXPECT_EQ(asked.size(), 12U) << "four tables in red, blue and default";
    EXPECT_THAT(asked["red norvossh_v4acl"], HasSubstr("flush table ip norvossh_v4acl"));
    EXPECT_THAT(asked["red norvossh_v4acl"], HasSubstr("tcp dport 22 drop"));
    EXPECT_EQ(asked["red norvossh_v6acl"], "");
    EXPECT_EQ(asked["blue norvossh_v4acl"], "");
}

TEST_F(access_rules_test, rules_that_have_disappeared_are_loaded_again_behind_a_block) {
    start();
    kernel["red norvossh_v4acl"] = nothing_loaded;
    load_works("red norvossh_v4acl");
    fake_platform::clear_calls();
    expect_repaired({{"rules red ssh ipv4", "the kernel has no rules, but access list ops makes 3"}}, {});
    EXPECT_THAT(loads(),
                ElementsAre(HasSubstr("norvossh_v4acl"), HasSubstr("norvossh_acl_all"), HasSubstr("norvossh_v4acl")));
    EXPECT_THAT(fake_platform::calls(), testing::IsSupersetOf({"mpp_vrf_block(red)", "mpp_vrf_unblock(red)"}));
    EXPECT_THAT(fake_platform::log_texts(),
                Contains("WARNING_GENERAL: rules red ssh ipv4: the kernel has no rules, but access list ops makes 3: "
                         "loading them again"));
}

TEST_F(access_rules_test, as_many_rules_may_still_be_others) {
    start();
    kernel["red norvossh_v4acl"] = {PACKET_FILTER_DIFFERS, 3, 3};
    EXPECT_THAT(fake_platform::reconcile(false).differences,
                ElementsAre(difference{"rules red ssh ipv4",
                                       "the kernel has 3 rules, as many as access list ops makes, but not the same"}));
    EXPECT_THAT(loads(), IsEmpty());
}

TEST_F(access_rules_test, rules_without_a_list_are_removed) {
    start();
    kernel["blue netconf_v6acl"] = {PACKET_FILTER_DIFFERS, 1, 0};
    load_works("blue netconf_v6acl");
    expect_repaired({{"rules blue netconf ipv6", "the kernel has 1 rule, but no access list is named"}}, {});
}

TEST_F(access_rules_test, rules_of_a_list_that_no_longer_exists_are_removed) {
    start();
    fake_platform::remove_list("/oper/ipv4-acl/gl/show/access-list/ops/sequencetable/");
    kernel["red norvossh_v4acl"] = {PACKET_FILTER_DIFFERS, 3, 0};
    load_works("red norvossh_v4acl");
    expect_repaired({{"rules red ssh ipv4", "the kernel has 3 rules, but there is no access list ops"}}, {});
}

TEST_F(access_rules_test, rules_in_a_vrf_without_configuration_are_removed) {
    start();
    kernel["default norvossh_v4acl"] = {PACKET_FILTER_DIFFERS, 2, 0};
    load_works("default norvossh_v4acl");
    expect_repaired({{"rules default ssh ipv4", "the kernel has 2 rules, but nothing is configured in the VRF"}}, {});
    EXPECT_THAT(read_file("/tmp/norvo-ssh/access-list/vrf-default_norvossh_v4acl.nft"),
                "table ip norvossh_v4acl {\n}\ndelete table ip norvossh_v4acl\n");
}

TEST_F(access_rules_test, a_chain_that_drops_is_named) {
    start();
    kernel["blue norvossh_v4acl"] = {PACKET_FILTER_DIFFERS, 0, 0};
    EXPECT_THAT(fake_platform::reconcile(false).differences,
                ElementsAre(difference{"rules blue ssh ipv4", "a chain drops packets, but no access list is named"}));
}

TEST_F(access_rules_test, a_start_removes_rules_of_a_list_that_is_no_longer_named) {
    start();
    fake_platform::store(red_with(std::nullopt));
    kernel["red norvossh_v4acl"] = {PACKET_FILTER_DIFFERS, 3, 0};
    die_and_start();
    EXPECT_THAT(read_file("/tmp/norvo-ssh/access-list/vrf-red_norvossh_v4acl.nft"),
                "flush table ip norvossh_v4acl\n\n");
    EXPECT_THAT(fake_platform::log_texts(), Contains(HasSubstr("rules red ssh ipv4: the kernel has 3 rules")));
}

TEST_F(access_rules_test, a_start_does_not_compare_what_it_has_just_loaded) {
    start();
    asked.clear();
    die_and_start();
    EXPECT_FALSE(asked.contains("red norvossh_v4acl"));
    EXPECT_TRUE(asked.contains("red netconf_v4acl"));
}

TEST_F(access_rules_test, a_load_that_fails_remains_and_is_reported) {
    start();
    kernel["red norvossh_v4acl"] = nothing_loaded;
    stub_commands::fail("ip netns exec", 1);
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 1);
    EXPECT_TRUE(fake_platform::is_not_in_force("rules red ssh ipv4"));
    const auto next = fake_platform::reconcile(false);
    EXPECT_EQ(next.differences.size(), 1U) << "named once, although two comparisons know of it";
}

TEST_F(access_rules_test, a_list_that_cannot_be_read_is_named) {
    start();
    fake_platform::fail("datastore_list_get", EIO);
    const auto found = fake_platform::reconcile(false);
    EXPECT_THAT(found.differences,
                Contains(difference{"rules red ssh ipv4", "access list ops could not be read: Input/output error"}));
    EXPECT_EQ(found.remaining, 1);
}

TEST_F(access_rules_test, what_cannot_be_compared_is_said) {
    start();
    kernel["red norvossh_v4acl"] = {PACKET_FILTER_UNKNOWN, 0, 0};
    EXPECT_THAT(fake_platform::reconcile(false).differences,
                ElementsAre(difference{"rules red ssh ipv4", "the rules in the kernel cannot be compared"}));
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 1);
    EXPECT_TRUE(fake_platform::is_not_in_force("rules red ssh ipv4"));
    fake_platform::fail("packet_filter_compare", ETIMEDOUT, 1);
    EXPECT_THAT(fake_platform::reconcile(false).differences,
                ElementsAre(difference{"rules in the kernel", "they cannot be compared: Connection timed out"}));
    fake_platform::fail("packet_filter_compare", ENOTSUP);
    EXPECT_THAT(fake_platform::reconcile(false).differences, IsEmpty());
}

TEST_F(access_rules_test, rules_of_a_vrf_whose_server_could_not_be_started_leave_it_blocked) {
    start();
    find_vrf_node("red")->start_failed = 1;
    stub_commands::fail_unit("sshd_service_red");
    kernel["red norvossh_v4acl"] = nothing_loaded;
    fake_platform::clear_calls();
    fake_platform::reconcile(true);
    EXPECT_THAT(fake_platform::calls(), Contains("mpp_vrf_block(red)"));
    EXPECT_THAT(fake_platform::calls(), Not(Contains("mpp_vrf_unblock(red)")));
}

}  // namespace
