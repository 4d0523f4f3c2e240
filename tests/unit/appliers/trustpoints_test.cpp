#include "appliers/trustpoints.h"

#include <cerrno>
#include <cstdlib>

#include "../algorithm_test.h"
#include "config_files/trustpoints.h"
#include "oper/server_params.h"
#include "scratch_root.h"
#include "vrf/node_registry.h"

namespace {

using fake_platform::remove;
using fake_platform::set_number;
using fake_platform::set_text;
using fake_platform::set_tuple;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

class trustpoints_test : public algorithm_test {
  protected:
    trustpoints_test() { start(); }

    static std::string path(const std::string& item) { return server_case.tree + item; }
    static std::string user(const std::string& name) { return path("trustpoint/user/" + name); }
    static std::string line(const std::string& keyword) { return value(paths::server_file, keyword); }
    static void add(const std::string& name) { commit_ok(set_number(user(name), 1)); }
    static void take(const std::string& name) { commit_ok(remove(user(name))); }

    static std::vector<std::string> held() { return {user_trustpoints, user_trustpoints + user_trustpoint_count}; }

    static void set_username(const std::vector<fake_platform::field>& flags) {
        commit_ok(set_tuple(path("certificate/username"), "%d%d", flags));
    }

    /// Calls an applier with an event that no datastore sends.
    static platform_status apply(datastore_item_applier applier, uint32_t event, const void* value = nullptr,
                                 size_t size = 0) {
        const char* const components[] = {"cmn", "trustpoint", "user", "A"};
        const datastore_path_components split = {components, 4};
        const datastore_change change = {event, nullptr, value, 0, size};
        return applier(&change, &split);
    }

    static bool warned(const std::string& text) { return fake_platform::logged("WARNING_GENERAL", text); }
};

// --- The host's ------------------------------------------------------------------------------------------------------

TEST_F(trustpoints_test, the_hosts_trustpoint_is_in_the_file_while_its_item_is_set) {
    EXPECT_EQ(line("HostTrustpointQd"), "no line");
    commit_ok(set_text(path("trustpoint/host"), "router-ca"));
    EXPECT_EQ(line("HostTrustpointQd"), "router-ca");
    EXPECT_STREQ(host_trustpoint, "router-ca");
    commit_ok(set_text(path("trustpoint/host"), "other"));
    EXPECT_EQ(line("HostTrustpointQd"), "other");
    commit_ok(remove(path("trustpoint/host")));
    EXPECT_EQ(line("HostTrustpointQd"), "no line");
    EXPECT_STREQ(host_trustpoint, "");
    EXPECT_EQ(server_config.parameters[SERVER_HOST_TRUSTPOINT].current, nullptr);
}

TEST_F(trustpoints_test, the_hosts_trustpoint_is_truncated_to_127_characters) {
    const std::string longest(127, 'h');
    commit_ok(set_text(path("trustpoint/host"), longest + "X"));
    EXPECT_EQ(line("HostTrustpointQd"), longest);
    commit_ok(set_text(path("trustpoint/host"), longest));
    EXPECT_EQ(line("HostTrustpointQd"), longest);
}

TEST_F(trustpoints_test, a_set_without_a_text_is_an_error) {
    const std::string before = both_files();
    EXPECT_EQ(apply(sshd_apply_trustpoint_host, 3), 1u);
    EXPECT_TRUE(warned("The event (3) did not set a value"));
    EXPECT_EQ(apply(sshd_apply_trustpoint_host, 2), 1u);
    EXPECT_TRUE(warned("The event (2) did not set a value"));
    EXPECT_EQ(both_files(), before);
}

// A creation is delivered together with the set; a creation by itself has no value.
TEST_F(trustpoints_test, a_creation_without_a_set_is_not_supported_for_the_host) {
    const std::string before = both_files();
    EXPECT_EQ(apply(sshd_apply_trustpoint_host, 1, "name", 5), 1u);
    EXPECT_TRUE(warned("Unsupported Event Type (1)"));
    EXPECT_EQ(apply(sshd_apply_trustpoint_host, 8, "name", 5), 1u);
    EXPECT_TRUE(warned("Unsupported Event Type (8)"));
    EXPECT_EQ(both_files(), before);
    EXPECT_STREQ(host_trustpoint, "");
}

TEST_F(trustpoints_test, a_recreated_file_has_the_trustpoints_from_the_table) {
    commit_ok(set_text(path("trustpoint/host"), "router-ca"));
    add("A");
    add("B");
    remove_path(paths::server_file);
    commit_ok(set_number(path("timeout"), 45));
    EXPECT_EQ(line("HostTrustpointQd"), "router-ca");
    EXPECT_EQ(line("UserTrustpointQd"), "A,B");
    EXPECT_EQ(line("UserTrustpointCntQd"), "2");
}

// --- The users' ------------------------------------------------------------------------------------------------------

TEST_F(trustpoints_test, user_trustpoints_are_a_counted_list_in_order_of_arrival) {
    add("zeta");
    EXPECT_EQ(line("UserTrustpointQd"), "zeta");
    EXPECT_EQ(line("UserTrustpointCntQd"), "1");
    add("alpha");
    EXPECT_EQ(line("UserTrustpointQd"), "zeta,alpha");
    EXPECT_EQ(line("UserTrustpointCntQd"), "2");
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("(sshd_apply_trustpoint_user), User trustpoint:=zeta,alpha,User trustpoint count:=2"));
    EXPECT_TRUE(fake_platform::debugged("user tp in apply set alpha"));
    EXPECT_TRUE(fake_platform::debugged("set match pos 1"));
}

// The count comes first because the server needs it to read the list.
TEST_F(trustpoints_test, the_count_is_written_before_the_list) {
    add("A");
    const auto lines = file_lines(paths::server_file);
    const auto count = std::ranges::find(lines, "UserTrustpointCntQd 1");
    const auto list = std::ranges::find(lines, "UserTrustpointQd A");
    ASSERT_NE(list, lines.end());
    EXPECT_LT(count, list);
}

TEST_F(trustpoints_test, the_last_one_replaces_a_removed_one) {
    for (const char* name : {"A", "B", "C"}) {
        add(name);
    }
    take("A");
    EXPECT_THAT(held(), ElementsAre("C", "B"));
    EXPECT_EQ(line("UserTrustpointQd"), "C,B");
    EXPECT_EQ(line("UserTrustpointCntQd"), "2");
    EXPECT_STREQ(user_trustpoints[2], "");
    EXPECT_TRUE(fake_platform::debugged("user tp in apply delete A"));
    EXPECT_TRUE(fake_platform::debugged("delete match pos 0"));
    take("B");
    EXPECT_EQ(line("UserTrustpointQd"), "C");
}

TEST_F(trustpoints_test, both_lines_are_deleted_with_the_last_name) {
    add("A");
    take("A");
    EXPECT_EQ(line("UserTrustpointQd"), "no line");
    EXPECT_EQ(line("UserTrustpointCntQd"), "no line");
    EXPECT_EQ(user_trustpoint_count, 0u);
    add("B");
    EXPECT_EQ(line("UserTrustpointQd"), "B");
    EXPECT_EQ(line("UserTrustpointCntQd"), "1");
}

TEST_F(trustpoints_test, removing_an_unknown_name_leaves_the_list) {
    add("A");
    const uint32_t one = 1;
    const char* const components[] = {"cmn", "trustpoint", "user", "nobody"};
    const datastore_path_components split = {components, 4};
    const datastore_change change = {4, &one, nullptr, sizeof one, 0};
    EXPECT_EQ(sshd_apply_trustpoint_user(&change, &split), PLATFORM_OK);
    EXPECT_EQ(line("UserTrustpointQd"), "A");
    EXPECT_FALSE(fake_platform::debugged("delete match pos 0"));
}

TEST_F(trustpoints_test, an_eleventh_trustpoint_is_refused) {
    for (int i = 0; i < 10; i++) {
        add("T" + std::to_string(i));
    }
    const std::string full = "T0,T1,T2,T3,T4,T5,T6,T7,T8,T9";
    EXPECT_EQ(line("UserTrustpointQd"), full);
    const auto result = fake_platform::commit(set_number(user("T10"), 1));
    EXPECT_EQ(result.status, uint32_t{EINVAL});
    EXPECT_EQ(result.error_text, "More than 10 trustpoints cannot be configured");
    EXPECT_EQ(fake_platform::stored(user("T10")), std::nullopt);
    EXPECT_EQ(line("UserTrustpointQd"), full);

    // A name that is already held is accepted without effect.
    const std::string before = both_files();
    commit_ok(set_number(user("T3"), 2));
    EXPECT_EQ(both_files(), before);

    take("T3");
    EXPECT_EQ(line("UserTrustpointQd"), "T0,T1,T2,T9,T4,T5,T6,T7,T8");
    add("T10");
    EXPECT_EQ(line("UserTrustpointQd"), "T0,T1,T2,T9,T4,T5,T6,T7,T8,T10");
}

std::vector<fake_platform::change> ten_names_from(int first) {
    std::vector<fake_platform::change> changes;
    for (int i = first; i < first + 10; i++) {
        changes.push_back(set_number(server_case.tree + "trustpoint/user/T" + std::to_string(i), 1));
    }
    return changes;
}

TEST_F(trustpoints_test, ten_in_one_commit_are_accepted_and_eleven_refused) {
    std::vector<fake_platform::change> changes = ten_names_from(10);
    changes.push_back(set_number(user("T20"), 1));
    const auto result = fake_platform::commit(changes);
    EXPECT_EQ(result.status, uint32_t{EINVAL});
    EXPECT_EQ(result.error_text, "More than 10 trustpoints cannot be configured");
    EXPECT_EQ(user_trustpoint_count, 0u);
    EXPECT_EQ(fake_platform::stored(user("T10")), std::nullopt);

    changes.pop_back();
    EXPECT_EQ(fake_platform::commit(changes).status, PLATFORM_OK);
    EXPECT_EQ(line("UserTrustpointQd"), "T10,T11,T12,T13,T14,T15,T16,T17,T18,T19");
    EXPECT_EQ(line("UserTrustpointCntQd"), "10");
}

TEST_F(trustpoints_test, a_deletion_does_not_free_a_slot_within_its_commit) {
    ASSERT_EQ(fake_platform::commit(ten_names_from(10)).status, PLATFORM_OK);
    EXPECT_EQ(fake_platform::commit({set_number(user("A"), 1), remove(user("T10"))}).error_text,
              "More than 10 trustpoints cannot be configured");
    EXPECT_EQ(fake_platform::commit({set_number(user("T12"), 2), remove(user("T10"))}).status, PLATFORM_OK);
    EXPECT_EQ(user_trustpoint_count, 9u);
    EXPECT_EQ(fake_platform::commit({set_number(user("A"), 1), set_number(user("B"), 1)}).status, uint32_t{EINVAL});
    add("A");
    EXPECT_EQ(user_trustpoint_count, 10u);
}

TEST_F(trustpoints_test, the_line_is_truncated_to_127_characters_but_the_record_is_not) {
    const std::string first(100, 'a');
    const std::string second(100, 'b');
    add(first);
    add(second);
    EXPECT_EQ(line("UserTrustpointQd"), first + "," + second.substr(0, 26));
    EXPECT_EQ(line("UserTrustpointCntQd"), "2");
    ssh_server_params params;
    fill_server_params(&params);
    EXPECT_EQ(std::string(params.Trustpointuser), first + "," + second);
}

TEST_F(trustpoints_test, a_truncated_name_counts_once_however_often_it_is_set) {
    const std::string longest(127, 'n');
    add(longest + "XYZ");
    add(longest + "XYZ2");
    EXPECT_THAT(held(), ElementsAre(longest));
    take(longest + "XYZ");
    EXPECT_EQ(user_trustpoint_count, 0u);
}

TEST_F(trustpoints_test, other_events_are_not_supported_for_users) {
    const std::string before = both_files();
    EXPECT_EQ(apply(sshd_apply_trustpoint_user, 1), 1u);
    EXPECT_TRUE(warned("Unsupported Event Type (1)"));
    EXPECT_EQ(apply(sshd_apply_trustpoint_user, 8), 1u);
    EXPECT_TRUE(warned("Unsupported Event Type (8)"));
    EXPECT_EQ(both_files(), before);
}

TEST_F(trustpoints_test, a_path_without_a_name_is_an_error) {
    const datastore_path_components split = {nullptr, 0};
    const uint32_t one = 1;
    const datastore_change change = {3, nullptr, &one, 0, sizeof one};
    EXPECT_EQ(sshd_apply_trustpoint_user(&change, &split), 1u);
    EXPECT_EQ(user_trustpoint_count, 0u);
}

TEST_F(trustpoints_test, a_removal_is_always_accepted) {
    for (int i = 0; i < 10; i++) {
        add("T" + std::to_string(i));
    }
    const char* const components[] = {"cmn", "trustpoint", "user", "other"};
    const datastore_path_components split = {components, 4};
    const datastore_change change = {4, nullptr, nullptr, 0, 0};
    char* text = nullptr;
    uint32_t accepted = 0;
    EXPECT_EQ(user_trustpoint_verifier(&change, &text, &accepted, &split), PLATFORM_OK);
    EXPECT_EQ(accepted, 1u);
    EXPECT_EQ(text, nullptr);
}

TEST_F(trustpoints_test, every_change_reaches_the_vrfs_servers) {
    scratch_root::add_namespace_file("vrf-red");
    commit_ok(set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/red", "%d%S%S", {{}, {}, {}}));
    const char* vrf_file = "/var/opt/norvo/norvossh/sshd_config_red";
    add("A");
    EXPECT_EQ(value(vrf_file, "UserTrustpointQd"), "A");
    EXPECT_EQ(value(vrf_file, "UserTrustpointCntQd"), "1");
    commit_ok(set_text(path("trustpoint/host"), "h"));
    EXPECT_EQ(value(vrf_file, "HostTrustpointQd"), "h");
    set_username({0, 1});
    EXPECT_EQ(value(vrf_file, "CertUsernameQd"), "2");
    take("A");
    EXPECT_EQ(value(vrf_file, "UserTrustpointQd"), "no line");
}

// --- The user's name in a certificate --------------------------------------------------------------------------------

TEST_F(trustpoints_test, the_flags_make_a_mask) {
    const std::pair<std::vector<fake_platform::field>, const char*> masks[] = {
        {{1, 0}, "1"}, {{0, 1}, "2"}, {{1, 1}, "3"}, {{0, 0}, "0"}, {{7, std::nullopt}, "1"}, {{std::nullopt, -1}, "2"},
    };
    for (const auto& [flags, mask] : masks) {
        fake_platform::clear_reports();
        set_username(flags);
        EXPECT_EQ(line("CertUsernameQd"), mask);
        EXPECT_TRUE(fake_platform::debugged(std::string("(ssh_apply_certificate_username), Username Field = ") + mask));
    }
}

TEST_F(trustpoints_test, without_the_item_the_common_name_is_used) {
    set_username({1, 1});
    EXPECT_EQ(line("CertUsernameQd"), "3");
    commit_ok(remove(path("certificate/username")));
    EXPECT_EQ(line("CertUsernameQd"), "1");
    EXPECT_TRUE(fake_platform::debugged("(ssh_apply_certificate_username) config removed"));
    EXPECT_STREQ(server_config.parameters[SERVER_CERTIFICATE_USERNAME].current, "1");
}

TEST_F(trustpoints_test, a_malformed_value_is_logged_and_changes_nothing) {
    set_username({1, 1});
    commit_ok({path("certificate/username"), fake_platform::raw_tuple_value("xy")});
    EXPECT_EQ(line("CertUsernameQd"), "3");
    EXPECT_TRUE(fake_platform::logged("ERR_DATASTORE_UNPACK",
                                      std::string("Error:=") + platform_status_text(TUPLE_MALFORMED) +
                                          "(0x40838200), Path:=CERT-USERNAME-APPLY, Failed to unpack datastore item"));
}

TEST_F(trustpoints_test, an_event_without_a_value_leaves_the_mask_unchanged) {
    const std::string before = both_files();
    EXPECT_EQ(apply(ssh_apply_certificate_username, 3), PLATFORM_OK);
    EXPECT_EQ(apply(ssh_apply_certificate_username, 8, "x", 1), PLATFORM_OK);
    EXPECT_EQ(both_files(), before);
}

// After a restart the stored trustpoints are restored, in byte order of their names.
TEST_F(trustpoints_test, stored_trustpoints_are_applied_at_start_up) {
    for (const char* name : {"b", "c", "a"}) {
        fake_platform::store(set_number(user(name), 1));
    }
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(line("UserTrustpointQd"), "a,b,c");
}

}  // namespace
