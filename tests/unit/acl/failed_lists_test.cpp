#include "acl/failed_lists.h"

#include "acl/acl_family.h"
#include "acl_test.h"
#include "call_faults.h"
#include "platform/mpp.h"
#include "vrf/acl_state.h"
#include "vrf/acl_types.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class failed_lists_test : public acl_test {
  protected:
    struct outcome {
        int remaining;
        std::vector<std::string> differences;
    };

    static outcome run(bool repair) {
        outcome found = {};
        found.remaining = acl_reload_failed(
            repair ? 1 : 0,
            [](const char* subject, const char* text, void* context) {
                static_cast<outcome*>(context)->differences.push_back(std::string(subject) + ": " + text);
            },
            &found);
        return found;
    }

    static void fail_loads(const std::string& of, uint32_t times = stub_commands::always) {
        stub_commands::fail("ip netns exec " + of, 1, times);
    }

    /// The list "ops" of SSH in the VRF red, which could not be loaded.
    void fail_to_attach() {
        set_list("ops", {ipv4_entry()});
        name(red->ssh_v4_acl, "ops");
        fail_loads("vrf-red", 1);
        ASSERT_EQ(ssh_configure_v4acl(nullptr, red, acl_ssh_v4), -1);
        block_without_acl(red, acl_ssh_v4);
        ASSERT_TRUE(is_blocked());
        stub_commands::clear_log();
    }

    static bool is_blocked() { return fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"); }

    static acl_change_notice notice(const char* list, bool present) {
        acl_change_notice made = {};
        copy_text(made.acl_name, sizeof made.acl_name, list);
        made.present = present ? 1 : 0;
        return made;
    }
};

TEST_F(failed_lists_test, a_loaded_list_needs_no_second_attempt) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, acl_ssh_v4), 0);
    stub_commands::clear_log();
    for (const bool repair : {false, true}) {
        const outcome found = run(repair);
        EXPECT_EQ(found.remaining, 0);
        EXPECT_THAT(found.differences, IsEmpty());
    }
    EXPECT_THAT(stub_commands::log(), IsEmpty());
}

TEST_F(failed_lists_test, a_list_that_is_not_loaded_is_reported_but_left_alone_without_repair) {
    fail_to_attach();
    const outcome found = run(false);
    EXPECT_EQ(found.remaining, 1);
    EXPECT_THAT(found.differences, ElementsAre("rules red ssh ipv4: access list ops is not loaded"));
    EXPECT_THAT(stub_commands::log(), IsEmpty());
    EXPECT_TRUE(is_blocked());
}

TEST_F(failed_lists_test, a_repair_loads_the_list_and_lifts_the_block) {
    fail_to_attach();
    const outcome found = run(true);
    EXPECT_EQ(found.remaining, 0);
    EXPECT_THAT(found.differences, ElementsAre("rules red ssh ipv4: access list ops is not loaded"));
    EXPECT_THAT(loads(), ElementsAre(HasSubstr("norvossh_acl_all"), HasSubstr("norvossh_v4acl")));
    EXPECT_FALSE(is_blocked());
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
    EXPECT_EQ(run(false).remaining, 0);
}

// Also with a name of one character. An existing list is loaded without flushing its table before.
TEST_F(failed_lists_test, a_list_of_each_service_and_family_is_loaded_in_one_step) {
    set_list("4", {ipv4_entry()});
    set_ipv6_list("6", {ipv6_entry()});
    for (uint32_t type = 0; type < acl_all; type++) {
        const bool is_ipv6 = type >= acl_ssh_v6;
        const acl_family& family = is_ipv6 ? ipv6_acl_family : ipv4_acl_family;
        const std::string list = is_ipv6 ? "6" : "4";
        char(&field)[acl_name_size] = red->*(type == family.ssh_type ? family.ssh_name : family.netconf_name);
        name(field, list.c_str());
        stub_commands::clear_log();
        const outcome found = run(true);
        EXPECT_EQ(found.remaining, 0);
        EXPECT_THAT(found.differences, ElementsAre(testing::EndsWith(": access list " + list + " is not loaded")));
        EXPECT_THAT(loads(), ElementsAre(HasSubstr("norvossh_acl_all"), HasSubstr(nft_table_name(type))));
        EXPECT_THAT(read_file(get_nft_file_name("red", type)), HasSubstr(" accept \n"));
        EXPECT_EQ(fake_platform::bindings(), 0U);
        EXPECT_EQ(fake_platform::count_calls("datastore_list_free(list)"),
                  fake_platform::count_calls("datastore_list_get"));
        name(field, "");
        run(true);
    }
}

TEST_F(failed_lists_test, a_list_that_does_not_exist_has_its_table_flushed) {
    for (const platform_status status : {DATASTORE_NO_SUCH_LIST, DATASTORE_NO_SUCH_TREE}) {
        acl_rules_failed(red, acl_ssh_v4, "not removed");
        name(red->ssh_v4_acl, "ops");
        fake_platform::fail("datastore_list_get", status);
        EXPECT_EQ(run(true).remaining, 0);
        EXPECT_EQ(loads().size(), 2U);
        stub_commands::clear_log();
        fake_platform::clear_failures();
    }
}

TEST_F(failed_lists_test, each_repair_reports_its_own_reason) {
    const fake_platform::unenforced unwritten = {"rules red ssh ipv4",
                                                 "the rule file could not be made: Read-only file system"};
    fail_to_attach();
    fail_loads("vrf-red");
    run(true);
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{
                    "rules red ssh ipv4", "table norvossh_acl_all was not loaded: the command gave no reason"}));
    call_faults::fail_call("creat", EROFS);
    run(true);
    EXPECT_THAT(fake_platform::not_in_force(), ElementsAre(unwritten));
    call_faults::clear();
    acl_load_again(red, acl_ssh_v4);
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{"rules red ssh ipv4",
                                                      "access list ops was not loaded: the command gave no reason"}));
    name(red->ssh_v4_acl, "");
    stub_commands::clear_rules();
    call_faults::fail_call("creat", EROFS, call_faults::always, 1, rule_file("red", "norvossh_v4acl"));
    run(true);
    EXPECT_THAT(fake_platform::not_in_force(), ElementsAre(unwritten));
}

TEST_F(failed_lists_test, each_type_has_its_own_reason) {
    acl_rules_failed(red, acl_ssh_v4, "not removed");
    acl_rules_failed(red, acl_netconf_v4, "not removed");
    call_faults::fail_call("creat", EROFS, call_faults::always, 1, rule_file("red", "norvossh_v4acl"));
    fail_loads("vrf-red /usr/sbin/nft -f " + rule_file("red", "netconf_v4acl"));
    EXPECT_EQ(run(true).remaining, 2);
    EXPECT_THAT(
        fake_platform::not_in_force(),
        ElementsAre(
            fake_platform::unenforced{"rules red ssh ipv4", "the rule file could not be made: Read-only file system"},
            fake_platform::unenforced{"rules red netconf ipv4",
                                      "table netconf_v4acl was not loaded: the command gave no reason"}));
}

TEST_F(failed_lists_test, a_table_is_loaded_again_completely) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    acl_load_again(red, acl_ssh_v4);
    EXPECT_THAT(loads(),
                ElementsAre(HasSubstr("norvossh_v4acl"), HasSubstr("norvossh_acl_all"), HasSubstr("norvossh_v4acl")));
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
    for (const uint32_t failing : {1U, 2U, 3U}) {
        stub_commands::clear_log();
        stub_commands::fail("ip netns exec", 1, 1, failing);
        acl_load_again(red, acl_ssh_v4);
        EXPECT_EQ(loads().size(), failing);
        EXPECT_TRUE(fake_platform::is_not_in_force("rules red ssh ipv4")) << failing;
        stub_commands::clear_rules();
        acl_load_again(red, acl_ssh_v4);
        EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
    }
}

TEST_F(failed_lists_test, a_repair_that_fails_says_why_and_does_not_block_again) {
    fail_to_attach();
    stub_commands::set_hook("ip netns exec",
                            "case \"$STUB_COMMAND_LINE\" in *v4acl*) echo 'Error: too many' >&2 ;; esac");
    stub_commands::fail("ip netns exec vrf-red /usr/sbin/nft -f " + rule_file("red", "norvossh_v4acl"), 1);
    fake_platform::clear_calls();
    const outcome found = run(true);
    EXPECT_EQ(found.remaining, 1);
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{"rules red ssh ipv4",
                                                      "access list ops was not loaded: Error: too many"}));
    EXPECT_EQ(fake_platform::count_calls("mpp_service_block"), 0U) << "an operator may have lifted the block";
}

TEST_F(failed_lists_test, without_tables_no_list_is_tried) {
    fail_to_attach();
    fail_loads("vrf-red");
    EXPECT_EQ(run(true).remaining, 1);
    EXPECT_THAT(loads(), ElementsAre(HasSubstr("norvossh_acl_all")));
    EXPECT_TRUE(fake_platform::is_not_in_force("rules red ssh ipv4"));
}

TEST_F(failed_lists_test, a_vrf_without_namespace_is_skipped) {
    fail_to_attach();
    scratch_root::remove_namespace_file("vrf-red");
    const outcome found = run(true);
    EXPECT_EQ(found.remaining, 0);
    EXPECT_THAT(found.differences, IsEmpty());
    EXPECT_THAT(stub_commands::log(), IsEmpty());
}

// The previous rules remain, so nothing needs to be blocked.
TEST_F(failed_lists_test, a_change_that_could_not_be_loaded_is_loaded_later) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, acl_ssh_v4), 0);
    fail_loads("vrf-red", 1);
    EXPECT_EQ(fake_platform::change_acl(ACL_FAMILY_IPV4, "ops", true), std::vector<int>{1});
    EXPECT_TRUE(fake_platform::is_not_in_force("rules red ssh ipv4"));
    EXPECT_FALSE(is_blocked());
    stub_commands::clear_log();
    const outcome found = run(true);
    EXPECT_THAT(found.differences, ElementsAre("rules red ssh ipv4: the last change of access list ops is not loaded"));
    EXPECT_EQ(found.remaining, 0);
    EXPECT_THAT(loads(), ElementsAre(HasSubstr("norvossh_acl_all"), HasSubstr("norvossh_v4acl")))
        << "the rules are replaced in one step";
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
}

TEST_F(failed_lists_test, a_change_that_is_loaded_lifts_the_block) {
    fail_to_attach();
    EXPECT_EQ(fake_platform::change_acl(ACL_FAMILY_IPV4, "ops", true), std::vector<int>{0});
    EXPECT_FALSE(is_blocked());
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
}

TEST_F(failed_lists_test, a_changed_list_that_cannot_be_read_does_not_lift_the_block) {
    fail_to_attach();
    fake_platform::fail("datastore_list_get", EIO);
    EXPECT_EQ(fake_platform::change_acl(ACL_FAMILY_IPV4, "ops", true), std::vector<int>{0});
    EXPECT_TRUE(is_blocked());
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{"rules red ssh ipv4",
                                                      "access list ops could not be read: Input/output error"}));
}

TEST_F(failed_lists_test, the_rules_of_a_deleted_list_are_removed_later) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, acl_ssh_v4), 0);
    fake_platform::remove_list(list_path("ops"));
    fail_loads("vrf-red", 1);
    const acl_change_notice removal = notice("ops", false);
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&removal), 1);
    EXPECT_TRUE(fake_platform::is_not_in_force("rules red ssh ipv4"));
    stub_commands::clear_log();
    EXPECT_EQ(run(true).remaining, 0);
    EXPECT_EQ(read_file(rule_file("red", "norvossh_v4acl")).find("drop"), std::string::npos);
    EXPECT_EQ(loads().size(), 2U);
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
}

TEST_F(failed_lists_test, the_rules_of_a_list_that_is_no_longer_configured_are_removed_later) {
    acl_rules_failed(red, acl_netconf_v6, "not removed");
    const outcome found = run(true);
    EXPECT_THAT(
        found.differences,
        ElementsAre("rules red netconf ipv6: rules of an access list that is no longer named are still loaded"));
    EXPECT_EQ(found.remaining, 0);
    EXPECT_EQ(read_file(rule_file("red", "netconf_v6acl")), "flush table ip6 netconf_v6acl\n\n");
}

TEST_F(failed_lists_test, a_flush_that_fails_again_remains_pending) {
    acl_rules_failed(red, acl_netconf_v6, "not removed");
    stub_commands::fail("ip netns exec vrf-red /usr/sbin/nft -f " + rule_file("red", "netconf_v6acl"), 1);
    EXPECT_EQ(run(true).remaining, 1);
    EXPECT_TRUE(fake_platform::is_not_in_force("rules red netconf ipv6"));
}

TEST_F(failed_lists_test, a_loaded_list_without_subscription_is_reported_and_not_blocked) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    fake_platform::fail("acl_service_get_list", EAGAIN);
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, acl_ssh_v4), -1);
    block_without_acl(red, acl_ssh_v4);
    EXPECT_FALSE(is_blocked());
    EXPECT_THAT(
        fake_platform::not_in_force(),
        ElementsAre(fake_platform::unenforced{"rules red ssh ipv4", "changes of the access list are not followed"}));
    fake_platform::clear_failures();
    EXPECT_EQ(run(true).remaining, 0);
    EXPECT_EQ(fake_platform::acl_subscriptions("ops"), 1U);
}

TEST_F(failed_lists_test, every_vrf_is_tried) {
    set_ipv6_list("six", {ipv6_entry()});
    for (vrf_node* node : {red, blue}) {
        name(node->ssh_v6_acl, "six");
    }
    fail_loads("vrf-blue");
    const outcome found = run(true);
    EXPECT_THAT(found.differences, ElementsAre("rules blue ssh ipv6: access list six is not loaded",
                                               "rules red ssh ipv6: access list six is not loaded"));
    EXPECT_EQ(found.remaining, 1);
    EXPECT_FALSE(acl_is_missing(*red, acl_ssh_v6));
    EXPECT_TRUE(acl_is_missing(*blue, acl_ssh_v6));
}

TEST_F(failed_lists_test, the_reason_a_file_cannot_be_written_is_reported) {
    fail_to_attach();
    remove_path("/tmp/norvo-ssh");
    write_file("/tmp/norvo-ssh", "in the way");
    EXPECT_EQ(run(true).remaining, 1);
    EXPECT_THAT(fake_platform::not_in_force()[0].reason, HasSubstr("Not a directory"));
}

}  // namespace
