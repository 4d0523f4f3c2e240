#include "vrf/namespace_handler.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "call_faults.h"
#include "platform/mpp.h"
#include "platform/namespace_message.h"
#include "usage.h"
#include "vrf/acl_state.h"
#include "vrf/acl_types.h"
#include "vrf_test.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;

class namespace_handler_test : public vrf_test {
  protected:
    static constexpr char look[] = "$ ip netns list | grep vrf-red";
    static constexpr char nap[] = "sleep(2)";

    namespace_handler_test() {
        event_manager* manager = nullptr;
        event_manager_create(paths::device, &manager);
        event_manager_attach_message(manager, NAMESPACE_MESSAGE, ssh_proxy_nns_handler, nullptr);
        list_namespace("vrf-red (id: 1)\n");
        forget();
    }

    /// The output of `ip netns list`, from its `from_call`th call on.
    static void list_namespace(const char* output, uint32_t from_call = 1) {
        stub_commands::set_output("ip netns list", output, stub_commands::always, from_call);
    }

    /// Delivers a message and checks the handler's only answer.
    static void send(uint32_t code, const std::string& name) {
        expect_answer(fake_platform::send_namespace_message(code, name));
    }

    static void expect_answer(const fake_platform::message_reply& reply) {
        EXPECT_TRUE(reply.handled);
        EXPECT_EQ(reply.replies, 1u);
        EXPECT_EQ(reply.bytes, std::string(24, '\0'));
    }

    /// The agent's calls, without the fake platform's replies.
    static std::vector<std::string> trail() {
        std::vector<std::string> calls;
        for (const std::string& call : vrf_test::trail()) {
            if (call.rfind("event_", 0) != 0) {
                calls.push_back(call);
            }
        }
        return calls;
    }

    static std::vector<std::string> start_of_red() {
        return {"vrf_table_lookup(red)",
                "$ systemctl daemon-reload",
                "mpp_vrf_nft_init(red)",
                "mpp_vrf_block(red)",
                "$ systemctl restart sshd_service_red",
                "mpp_vrf_unblock(red)"};
    }

    static std::vector<std::string> joined(std::initializer_list<std::vector<std::string>> parts) {
        std::vector<std::string> whole;
        for (const auto& part : parts) {
            whole.insert(whole.end(), part.begin(), part.end());
        }
        return whole;
    }
};

// --- A namespace appears ---------------------------------------------------------------------------------------------

TEST_F(namespace_handler_test, a_vrfs_server_starts_when_its_namespace_appears) {
    vrf_node* node = create_vrf_node("red");
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_THAT(trail(), ElementsAreArray(joined({{look, "mpp_namespace_created(vrf-red)"},
                                                  start_of_red(),
                                                  {"create_nft_table(red)", "mpp_vrf_set(1, red)"}})));
    EXPECT_EQ(node->server_started, 1u);
    EXPECT_TRUE(path_exists(unit_file("red")));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("ssh_proxy_nns_handler, Entered"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Message:=2, Name:=vrf-red, event received"));
}

// The NETCONF IPv6 list goes to the IPv4 routine.
TEST_F(namespace_handler_test, all_lists_are_attached_in_order) {
    vrf_node* node = create_vrf_node("red");
    strcpy(node->ssh_v4_acl, "a");
    strcpy(node->ssh_v6_acl, "b");
    strcpy(node->netconf_v4_acl, "c");
    strcpy(node->netconf_v6_acl, "d");
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_THAT(trail(), ElementsAreArray(joined(
                             {{look, "mpp_namespace_created(vrf-red)"},
                              start_of_red(),
                              {"create_nft_table(red)", "ssh_configure_v4acl(red, 0)", "ssh_configure_v4acl(red, 1)",
                               "ssh_configure_v6acl(red, 2)", "ssh_configure_v4acl(red, 3)", "mpp_vrf_set(1, red)"}})));
}

TEST_F(namespace_handler_test, a_netconf_server_is_marked_for_both_services) {
    vrf_node* node = create_vrf_node("red");
    node->lines[VRF_NETCONF_SUBSYSTEM].current = "/pkg/bin/netconf_sshd_proxy -i 0 -o 1";
    send(NAMESPACE_CREATED, "vrf-red");
    const std::vector<std::string> calls = trail();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[calls.size() - 2], "mpp_vrf_set(1, red)");
    EXPECT_EQ(calls[calls.size() - 1], "mpp_vrf_set(64, red)");
}

TEST_F(namespace_handler_test, a_started_server_is_left_alone) {
    create_vrf_node("red")->server_started = 1;
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_THAT(fake_platform::debug_texts(), Contains(" vrf creation already informed"));
}

TEST_F(namespace_handler_test, a_namespace_without_a_vrf_is_ignored) {
    send(NAMESPACE_CREATED, "vrf-red");
    create_vrf_node("green");
    for (const char* name : {"vrf-red", "vrf-gree", "vrf-greens", "green", "", "vrf-", "vrf-;reboot"}) {
        send(NAMESPACE_CREATED, name);
    }
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_THAT(stub_commands::log(), ElementsAre());
}

// --- The wait --------------------------------------------------------------------------------------------------------

TEST_F(namespace_handler_test, waits_until_the_namespace_is_listed) {
    create_vrf_node("red");
    stub_commands::clear_rules();
    list_namespace("vrf-red\n", 3);
    const size_t descriptors = open_descriptors();
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_THAT(trail(), ElementsAreArray(joined({{look, nap, look, nap, look, "mpp_namespace_created(vrf-red)"},
                                                  start_of_red(),
                                                  {"create_nft_table(red)", "mpp_vrf_set(1, red)"}})));
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("nns not created for vrf:=red, sleep for 2 seconds and recheck. Attempt:=1"));
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("nns not created for vrf:=red, sleep for 2 seconds and recheck. Attempt:=2"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
}

// After ten attempts the unit is started anyway.
TEST_F(namespace_handler_test, a_namespace_that_never_appears_takes_ten_attempts) {
    vrf_node* node = create_vrf_node("red");
    stub_commands::clear_rules();
    send(NAMESPACE_CREATED, "vrf-red");
    std::vector<std::string> attempts;
    for (int i = 0; i < 10; i++) {
        attempts.emplace_back(look);
        attempts.emplace_back(nap);
    }
    EXPECT_THAT(trail(),
                ElementsAreArray(joined({attempts, start_of_red(), {"create_nft_table(red)", "mpp_vrf_set(1, red)"}})));
    EXPECT_EQ(node->server_started, 1u);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("nns not created for vrf:=red, sleep for 2 seconds and recheck. Attempt:=10"));
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("nns not created for vrf: red ,even after 10 retries with sleep interval of 2 seconds"));
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_DETAILS: nns not created for vrf: red even after multiple retries"));
    EXPECT_TRUE(traced({"vrf-red", "10"}));
}

TEST_F(namespace_handler_test, a_namespace_that_is_not_accepted_is_a_failed_attempt) {
    create_vrf_node("red");
    fake_platform::fail("mpp_namespace_created", EIO, 2);
    send(NAMESPACE_CREATED, "vrf-red");
    const std::string announce = "mpp_namespace_created(vrf-red)";
    EXPECT_THAT(trail(), ElementsAreArray(joined({{look, announce, nap, look, announce, nap, look, announce},
                                                  start_of_red(),
                                                  {"create_nft_table(red)", "mpp_vrf_set(1, red)"}})));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("MPP nns create API failed, Input/output error"));
    EXPECT_TRUE(traced({"vrf-red", "5"}));
}

TEST_F(namespace_handler_test, a_listing_that_fails_is_a_failed_attempt) {
    create_vrf_node("red");
    command_trail::fail_shell("ip netns list", EMFILE);
    send(NAMESPACE_CREATED, "vrf-red");
    const auto calls = trail();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), nap), 10);
    EXPECT_THAT(calls, Contains("$ systemctl restart sshd_service_red"));
}

TEST_F(namespace_handler_test, a_listing_that_times_out_is_a_failed_attempt) {
    create_vrf_node("red");
    call_faults::limit_commands(100);
    stub_commands::set_delay("ip netns list", 60000, 2);
    send(NAMESPACE_CREATED, "vrf-red");
    const auto calls = trail();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), nap), 2);
}

// The name must be at the beginning of a line, where a longer name also matches.
TEST_F(namespace_handler_test, the_name_is_matched_at_the_beginning_of_a_line) {
    create_vrf_node("red");
    stub_commands::clear_rules();
    list_namespace("old-vrf-red\nvrf-green\n");
    list_namespace("vrf-green\nold-vrf-red\nvrf-red2 (id: 7)\n", 2);
    send(NAMESPACE_CREATED, "vrf-red");
    const auto calls = trail();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), nap), 1);
}

// --- Failures on the way ---------------------------------------------------------------------------------------------

TEST_F(namespace_handler_test, a_unit_that_cannot_be_created_stops_the_handling) {
    vrf_node* node = create_vrf_node("red");
    fake_platform::fail("vrf_table_lookup", ENOENT);
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_THAT(trail(), ElementsAre(look, "mpp_namespace_created(vrf-red)", "vrf_table_lookup(red)",
                                     "enforcement_failed(unit red, the number of the VRF is unknown: No such file or "
                                     "directory)"));
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Failed to create systemd service and config file for vrf:=red"));
    EXPECT_EQ(node->server_started, 0u);
}

TEST_F(namespace_handler_test, a_failed_server_is_started_by_the_next_message) {
    vrf_node* node = create_vrf_node("red");
    command_trail::fail_shell("systemctl restart", ENOMEM);
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_EQ(node->server_started, 0u);
    EXPECT_EQ(trail().back(), "mpp_vrf_set(1, red)");
    command_trail::begin();
    forget();
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_THAT(trail(), Contains("$ systemctl restart sshd_service_red"));
    EXPECT_EQ(node->server_started, 1u);
}

TEST_F(namespace_handler_test, a_table_that_cannot_be_created_stops_the_handling) {
    create_vrf_node("red");
    fail_call("create_nft_table(red)");
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_THAT(trail(), Contains("create_nft_table(red)"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("ssh_proxy_nns_handler: Failed to create nft table"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre(log_of_details("Failed to create nft table vrf:  red")));
}

TEST_F(namespace_handler_test, a_list_that_cannot_be_attached_blocks_its_service) {
    add_namespace("red");
    const std::vector<std::vector<std::string>> failures = {
        {"ssh_configure_v4acl(red, 3)", "Failed to configure netconf v6 acl vrf:  red",
         "mpp_service_block(64, 6, red)"},
        {"ssh_configure_v6acl(red, 2)", "Failed to configure ssh v6 acl vrf:  red", "mpp_service_block(1, 6, red)"},
        {"ssh_configure_v4acl(red, 1)", "Failed to configure netconf v4 acl vrf:  red",
         "mpp_service_block(64, 4, red)"},
        {"ssh_configure_v4acl(red, 0)", "Failed to configure ssh v4 acl vrf:  red", "mpp_service_block(1, 4, red)"},
    };
    vrf_node* node = create_vrf_node("red");
    for (char* name : {node->ssh_v4_acl, node->ssh_v6_acl, node->netconf_v4_acl, node->netconf_v6_acl}) {
        strcpy(name, "list");
    }
    for (const auto& failure : failures) {
        node->server_started = 0;
        forget();
        fail_call(failure[0]);
        send(NAMESPACE_CREATED, "vrf-red");
        EXPECT_THAT(trail(), Contains(failure[0]));
        EXPECT_THAT(trail(), Contains(failure[2]));
        EXPECT_THAT(trail(), Contains("reload_acls(red)"));
        EXPECT_THAT(trail(), Not(Contains("mpp_vrf_set(1, red)")));
        EXPECT_THAT(fake_platform::log_texts(), ElementsAre(log_of_details(failure[1])));
        clear_failed_calls();
        forget_acl_rules(node);
    }
}

// The list that the IPv4 routine refused is loaded later, and nothing counts as failed.
TEST_F(namespace_handler_test, a_list_that_is_loaded_later_is_neither_blocked_nor_reported) {
    add_namespace("red");
    vrf_node* node = create_vrf_node("red");
    strcpy(node->netconf_v6_acl, "d");
    fail_call("ssh_configure_v4acl(red, 3)");
    agent_upcalls.reload_acls = [](vrf_node* reloaded) { acl_rules_in_force(reloaded, acl_netconf_v6); };
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_THAT(fake_platform::calls_of("enforcement_failed"), ElementsAre());
    EXPECT_FALSE(fake_platform::service_blocked(MPP_SERVICE_NETCONF, MPP_FAMILY_IPV6, "red"));
    EXPECT_EQ(trail().back(), "mpp_vrf_set(1, red)");
}

TEST_F(namespace_handler_test, failures_are_dropped_with_the_namespace) {
    add_namespace("red");
    vrf_node* node = create_vrf_node("red");
    strcpy(node->ssh_v4_acl, "a");
    fail_call("ssh_configure_v4acl(red, 0)");
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_TRUE(fake_platform::is_not_in_force("rules red ssh ipv4"));
    send(NAMESPACE_DELETED, "vrf-red");
    EXPECT_THAT(fake_platform::not_in_force(), ElementsAre());
    EXPECT_FALSE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"));
}

TEST_F(namespace_handler_test, lists_without_a_unit_leave_their_services_blocked) {
    add_namespace("red");
    strcpy(create_vrf_node("red")->ssh_v4_acl, "a");
    fake_platform::fail("vrf_table_lookup", ENOENT);
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_TRUE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"));
}

TEST_F(namespace_handler_test, a_failure_of_access_lists_does_not_stop_the_handling) {
    agent_upcalls.create_nft_table = nullptr;
    agent_upcalls.ssh_configure_v4acl = nullptr;
    agent_upcalls.ssh_configure_v6acl = nullptr;
    strcpy(create_vrf_node("red")->ssh_v4_acl, "a");
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_EQ(trail().back(), "mpp_vrf_set(1, red)");
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
}

// --- A namespace goes ------------------------------------------------------------------------------------------------

TEST_F(namespace_handler_test, a_server_is_stopped_with_its_namespace_and_its_node_stays) {
    vrf_node* node = create_vrf_node("red");
    send(NAMESPACE_CREATED, "vrf-red");
    forget();
    send(NAMESPACE_DELETED, "vrf-red");
    EXPECT_THAT(trail(), ElementsAre("mpp_namespace_deleted(vrf-red)", "$ systemctl stop sshd_service_red",
                                     "mpp_vrf_unblock(red)"));
    EXPECT_EQ(find_vrf_node("red"), node);
    EXPECT_EQ(node->server_started, 0u);
    EXPECT_EQ(node->reference_count, 1);
    EXPECT_FALSE(path_exists(unit_file("red")));
    EXPECT_FALSE(path_exists(environment_file("red")));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Message:=3, Name:=vrf-red, event received"));
}

TEST_F(namespace_handler_test, the_units_of_a_namespace_without_node_are_removed) {
    create_sshd_service_config_file("vrf-red");
    forget();
    send(NAMESPACE_DELETED, "vrf-red");
    EXPECT_THAT(trail(), ElementsAre("mpp_namespace_deleted(vrf-red)"));
    EXPECT_FALSE(path_exists(unit_file("red")));
    EXPECT_FALSE(path_exists(environment_file("red")));
}

TEST_F(namespace_handler_test, a_failed_withdrawal_does_not_keep_the_server_running) {
    vrf_node* node = create_vrf_node("red");
    send(NAMESPACE_CREATED, "vrf-red");
    forget();
    fake_platform::fail("mpp_namespace_deleted", EIO);
    send(NAMESPACE_DELETED, "vrf-red");
    EXPECT_THAT(fake_platform::debug_texts(), Contains("MPP nns delete API failed, Input/output error"));
    EXPECT_TRUE(traced({"vrf-red", "5"}));
    EXPECT_THAT(trail(), Contains("$ systemctl stop sshd_service_red"));
    EXPECT_EQ(node->server_started, 0u);
    EXPECT_FALSE(path_exists(unit_file("red")));
}

TEST_F(namespace_handler_test, a_recreated_namespace_gets_a_new_unit_and_server) {
    vrf_node* node = create_vrf_node("red");
    strcpy(node->ssh_v4_acl, "a");
    send(NAMESPACE_CREATED, "vrf-red");
    send(NAMESPACE_DELETED, "vrf-red");
    forget();
    send(NAMESPACE_CREATED, "vrf-red");
    // The packet filter is initialised once per VRF, not once per namespace.
    EXPECT_THAT(trail(), ElementsAre(look, "mpp_namespace_created(vrf-red)", "vrf_table_lookup(red)",
                                     "$ systemctl daemon-reload", "mpp_vrf_block(red)",
                                     "$ systemctl restart sshd_service_red", "mpp_vrf_unblock(red)",
                                     "create_nft_table(red)", "ssh_configure_v4acl(red, 0)", "mpp_vrf_set(1, red)"));
    EXPECT_EQ(node->server_started, 1u);
    EXPECT_TRUE(path_exists(unit_file("red")));
}

TEST_F(namespace_handler_test, no_list_counts_as_attached_without_its_namespace) {
    vrf_node* node = create_vrf_node("red");
    strcpy(node->ssh_v4_acl, "a");
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_NE(node->attached_acls, 0u);
    send(NAMESPACE_DELETED, "vrf-red");
    EXPECT_EQ(node->attached_acls, 0u);
}

TEST_F(namespace_handler_test, a_configured_vrf_starts_once_when_its_namespace_appears_later) {
    const fake_platform::value value = fake_platform::tuple_value("%d%S%S", {{}, "four", {}});
    const char* const path[] = {"sshd", "vrf", "red"};
    const datastore_path_components components = {path, 3};
    const datastore_change change = {3, nullptr, value.bytes.data(), 0, value.bytes.size()};
    EXPECT_EQ(sshd_apply_vrf_func(&change, &components), 0u);
    EXPECT_THAT(stub_commands::log(), ElementsAre());
    send(NAMESPACE_CREATED, "vrf-red");
    send(NAMESPACE_CREATED, "vrf-red");
    EXPECT_THAT(stub_commands::log_of("systemctl restart"), ElementsAre("systemctl restart sshd_service_red"));
    EXPECT_THAT(trail(), Contains("ssh_configure_v4acl(red, 0)"));
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 22\n");
}

// --- Other messages --------------------------------------------------------------------------------------------------

TEST_F(namespace_handler_test, other_codes_are_answered_and_ignored) {
    create_vrf_node("red");
    for (const uint32_t code : {0u, 1u, 4u, 0xffffffffu}) {
        send(code, "vrf-red");
    }
    EXPECT_THAT(trail(), ElementsAre());
}

TEST_F(namespace_handler_test, malformed_messages_are_answered_and_ignored) {
    create_vrf_node("red");
    for (const std::string& body : {std::string(), std::string("\2"), std::string("\2\0\0\0", 4)}) {
        expect_answer(fake_platform::send_message(NAMESPACE_MESSAGE, body));
    }
    EXPECT_THAT(trail(), ElementsAre());
}

TEST_F(namespace_handler_test, an_unterminated_name_is_terminated) {
    create_vrf_node("red");
    expect_answer(fake_platform::send_message(NAMESPACE_MESSAGE, std::string("\2\0\0\0", 4) + std::string(256, 'v')));
    expect_answer(fake_platform::send_message(NAMESPACE_MESSAGE, std::string("\2\0\0\0", 4) + std::string(999, 'v')));
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Message:=2, Name:=" + std::string(255, 'v') + ", event received").Times(2));
    // A message that ends with its name, without the rest of the array, is accepted.
    expect_answer(fake_platform::send_message(NAMESPACE_MESSAGE, std::string("\2\0\0\0vrf-red", 11)));
    EXPECT_THAT(trail(), Contains("$ systemctl restart sshd_service_red"));
}

// A name with shell characters belongs to no VRF, so no command contains it.
TEST_F(namespace_handler_test, a_hostile_name_reaches_no_command) {
    create_vrf_node("red");
    for (const char* name : {"vrf-red;touch /tmp/owned", "vrf-$(touch /tmp/owned)", "vrf-`touch /tmp/owned`",
                             "vrf-red\ntouch /tmp/owned", "vrf-../../../tmp/owned"}) {
        send(NAMESPACE_CREATED, name);
        send(NAMESPACE_DELETED, name);
    }
    EXPECT_THAT(stub_commands::log(), ElementsAre());
    EXPECT_THAT(trail(), Each(Not(HasSubstr("$ "))));
    EXPECT_FALSE(path_exists("/tmp/owned"));
}

}  // namespace
