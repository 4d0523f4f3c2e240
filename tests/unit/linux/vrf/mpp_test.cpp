#include "platform/mpp.h"

#include "linux/vrf/mpp_filter.h"
#include "linux/vrf/mpp_internal.h"
#include "unit/linux/vrf/vrf_namespace_support.h"

using platform_test::add_vrf;
using platform_test::journal_listener;
using platform_test::nft_in;
using platform_test::no_descriptors_left;
using platform_test::reachable;
using platform_test::red;
using platform_test::remove_vrf;
using platform_test::vrf_listener;

namespace {

const platform_status invalid = EINVAL;

class mpp_test : public platform_test::loop_test {
  protected:
    void SetUp() override {
        loop_test::SetUp();
        add_vrf(red);
    }
    void TearDown() override {
        loop_test::TearDown();
        if (namespace_is_attached("vrf-red")) {
            remove_vrf(red);
        }
    }

    static bool is_blocked(const char* vrf = red) { return blocked_ports(vrf) == filter_all_ports; }
    static filter_ports blocked_ports(const char* vrf = red) {
        filter_ports blocked = 0;
        std::string failure;
        EXPECT_EQ(0u, mpp_filter_blocked(vrf, blocked, failure)) << failure;
        return blocked;
    }
    static mpp_vrf_status status_of(const std::string& vrf) {
        for (const mpp_vrf_status& status : mpp_status()) {
            if (status.vrf_name == vrf) {
                return status;
            }
        }
        return {};
    }
    void open_services() {
        ASSERT_EQ(0u, mpp_init(MPP_SERVICE_SSH));
        ASSERT_EQ(0u, mpp_init(MPP_SERVICE_NETCONF));
        reach_loop();
    }
    /// What happens after a handler has returned: the loop does the pending work.
    void reach_loop() { run_for(5); }
};

TEST_F(mpp_test, a_server_is_started_while_blocked) {
    open_services();
    const vrf_listener server(red, AF_INET, 22);
    ASSERT_EQ(0u, mpp_vrf_nft_init(red));
    EXPECT_TRUE(reachable(red, 22));
    ASSERT_EQ(0u, mpp_vrf_block(red));
    EXPECT_FALSE(reachable(red, 22));
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    EXPECT_FALSE(reachable(red, 22)) << "the handler may still have access lists to load";
    EXPECT_TRUE(status_of(red).unblock_requested);
    reach_loop();
    EXPECT_TRUE(reachable(red, 22));
    EXPECT_FALSE(status_of(red).blocked);
    EXPECT_FALSE(status_of(red).unblock_requested);
}

TEST_F(mpp_test, the_port_opens_before_the_next_event_is_handled) {
    open_services();
    int pipe_fds[2];
    ASSERT_EQ(0, pipe2(pipe_fds, O_CLOEXEC | O_NONBLOCK));
    ASSERT_EQ(1, write(pipe_fds[1], "x", 1));
    struct seen {
        bool called = false;
        bool blocked = true;
    } next;
    ASSERT_EQ(0u, event_manager_attach_fd(
                      manager, pipe_fds[0], EVENT_MANAGER_READ,
                      [](int, uint32_t, void* context) {
                          *static_cast<seen*>(context) = {true, is_blocked()};
                      },
                      &next));
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    run_once();
    EXPECT_FALSE(next.called);
    run_once();
    EXPECT_TRUE(next.called);
    EXPECT_FALSE(next.blocked);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
}

TEST_F(mpp_test, a_block_cancels_a_requested_unblock) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    ASSERT_EQ(0u, mpp_vrf_block(red));
    EXPECT_FALSE(status_of(red).unblock_requested);
    reach_loop();
    EXPECT_TRUE(is_blocked()) << "a server that could not be started remains unreachable";
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    reach_loop();
    EXPECT_FALSE(is_blocked());
}

TEST_F(mpp_test, an_unblock_without_a_block_is_accepted) {
    open_services();
    EXPECT_EQ(0u, mpp_vrf_unblock(red));
    EXPECT_EQ(0u, mpp_vrf_unblock("vrf-that-never-was"));
    journal_listener journal;
    reach_loop();
    EXPECT_EQ("", journal.messages());
    EXPECT_TRUE(mpp_status().empty()) << "neither is remembered";
}

TEST_F(mpp_test, a_block_does_not_require_the_initialisation) {
    open_services();
    EXPECT_EQ(0u, mpp_vrf_block(red));
    EXPECT_TRUE(is_blocked());
    EXPECT_TRUE(status_of(red).initialised);
}

TEST_F(mpp_test, the_initialisation_does_not_unblock) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, mpp_vrf_nft_init(red));
    EXPECT_TRUE(is_blocked());
}

TEST_F(mpp_test, each_vrf_is_blocked_separately) {
    add_vrf("blue");
    open_services();
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, mpp_vrf_block("blue"));
    ASSERT_EQ(0u, mpp_vrf_unblock("blue"));
    reach_loop();
    EXPECT_TRUE(is_blocked());
    EXPECT_FALSE(is_blocked("blue"));
    remove_vrf("blue");
}

TEST_F(mpp_test, services_are_recorded_for_the_operator) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_set(MPP_SERVICE_SSH, red));
    EXPECT_TRUE(status_of(red).ssh);
    EXPECT_FALSE(status_of(red).netconf);
    ASSERT_EQ(0u, mpp_vrf_set(MPP_SERVICE_NETCONF, red));
    ASSERT_EQ(0u, mpp_vrf_set(MPP_SERVICE_NETCONF, red));
    ASSERT_EQ(0u, mpp_vrf_unset(MPP_SERVICE_SSH, red));
    EXPECT_FALSE(status_of(red).ssh);
    EXPECT_TRUE(status_of(red).netconf);
    ASSERT_EQ(0u, mpp_vrf_unset(MPP_SERVICE_NETCONF, red));
    EXPECT_TRUE(mpp_status().empty());
    EXPECT_EQ("", nft_in(red, "list ruleset")) << "recording opens and closes nothing";
}

TEST_F(mpp_test, a_service_must_be_opened_first) {
    const platform_status closed = ENOTCONN;
    EXPECT_EQ(closed, mpp_vrf_set(MPP_SERVICE_SSH, red));
    ASSERT_EQ(0u, mpp_init(MPP_SERVICE_SSH));
    EXPECT_EQ(0u, mpp_vrf_set(MPP_SERVICE_SSH, red));
    EXPECT_EQ(closed, mpp_vrf_set(MPP_SERVICE_NETCONF, red));
    mpp_close(MPP_SERVICE_SSH);
    mpp_close(MPP_SERVICE_SSH);
    mpp_close(12345);
    EXPECT_EQ(closed, mpp_vrf_unset(MPP_SERVICE_SSH, red));
}

TEST_F(mpp_test, refuses_unknown_services_and_names) {
    EXPECT_EQ(invalid, mpp_init(0));
    EXPECT_EQ(invalid, mpp_init(65));
    open_services();
    EXPECT_EQ(invalid, mpp_vrf_set(2, red));
    for (const char* name : {"", "a b", "a/b", "../red", "-x", ".x", "a;b", "$(x)", "123456789012345678901234567890123",
                             static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(invalid, mpp_vrf_set(MPP_SERVICE_SSH, name));
        EXPECT_EQ(invalid, mpp_vrf_unset(MPP_SERVICE_SSH, name));
        EXPECT_EQ(invalid, mpp_vrf_nft_init(name));
        EXPECT_EQ(invalid, mpp_vrf_block(name));
        EXPECT_EQ(invalid, mpp_vrf_unblock(name));
    }
    EXPECT_EQ(invalid, mpp_namespace_created("red"));
    EXPECT_EQ(invalid, mpp_namespace_created(nullptr));
    EXPECT_EQ(invalid, mpp_namespace_deleted("vrf-a b"));
    EXPECT_TRUE(mpp_status().empty());
}

TEST_F(mpp_test, a_failure_is_returned_each_time_and_logged_once) {
    open_services();
    journal_listener journal;
    EXPECT_EQ(static_cast<platform_status>(ENOENT), mpp_vrf_block("none"));
    EXPECT_EQ(static_cast<platform_status>(ENOENT), mpp_vrf_block("none"));
    EXPECT_EQ("Cannot block the ports in namespace vrf-none: No such file or directory\n", journal.messages());
    EXPECT_EQ(static_cast<platform_status>(ENOENT), mpp_vrf_nft_init("none"));
    EXPECT_EQ("Cannot create the packet filter in namespace vrf-none: No such file or directory\n", journal.messages());
}

TEST_F(mpp_test, a_namespace_counts_as_created_only_if_it_is_one) {
    open_services();
    EXPECT_EQ(0u, mpp_namespace_created("vrf-red"));
    EXPECT_EQ(static_cast<platform_status>(ENOENT), mpp_namespace_created("vrf-none"));
    platform_test::write_file("/run/netns/vrf-none", "");
    EXPECT_EQ(static_cast<platform_status>(ENOENT), mpp_namespace_created("vrf-none"));
    unlink("/run/netns/vrf-none");
}

TEST_F(mpp_test, a_recreated_namespace_starts_again) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_set(MPP_SERVICE_SSH, red));
    ASSERT_EQ(0u, mpp_vrf_nft_init(red));
    ASSERT_EQ(0u, mpp_vrf_block(red));
    remove_vrf(red);
    ASSERT_EQ(0u, mpp_namespace_deleted("vrf-red"));
    EXPECT_FALSE(status_of(red).initialised);
    EXPECT_FALSE(status_of(red).blocked);
    EXPECT_TRUE(status_of(red).ssh) << "the VRF's services do not change with its namespace";
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    reach_loop();
    add_vrf(red);
    ASSERT_EQ(0u, mpp_namespace_created("vrf-red"));
    EXPECT_FALSE(is_blocked());
    ASSERT_EQ(0u, mpp_vrf_block(red));
    EXPECT_TRUE(is_blocked());
}

TEST_F(mpp_test, an_unblock_after_the_namespace_has_gone) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    remove_vrf(red);
    journal_listener journal;
    reach_loop();
    EXPECT_EQ("", journal.messages());
    EXPECT_TRUE(mpp_status().empty());
}

TEST_F(mpp_test, a_vrf_that_cannot_be_unblocked_is_unblocked_later) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    journal_listener journal;
    {
        const no_descriptors_left none;
        reach_loop();
    }
    EXPECT_EQ("Cannot open the ports in namespace vrf-red: Too many open files\n", journal.messages());
    EXPECT_TRUE(is_blocked());
    EXPECT_TRUE(status_of(red).unblock_requested);
    EXPECT_TRUE(run_until([&] { return !status_of(red).blocked; }));
    EXPECT_FALSE(is_blocked());
}

/// A new process finds the state that the previous one left.
TEST_F(mpp_test, a_block_survives_the_agent_until_the_next_one_reaches_its_loop) {
    open_services();
    const vrf_listener server(red, AF_INET, 22);
    ASSERT_EQ(0u, mpp_vrf_block(red));
    mpp_reset();
    EXPECT_FALSE(reachable(red, 22)) << "without an agent nobody has loaded the access lists";
    ASSERT_EQ(0u, mpp_init(MPP_SERVICE_SSH));
    ASSERT_EQ(0u, mpp_init(MPP_SERVICE_NETCONF));
    EXPECT_TRUE(status_of(red).blocked);
    EXPECT_FALSE(reachable(red, 22)) << "the stored configuration has not been applied yet";
    reach_loop();
    EXPECT_TRUE(reachable(red, 22)) << "nobody stays locked out";
}

TEST_F(mpp_test, a_block_left_behind_can_be_taken_over_by_a_new_one) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_block(red));
    mpp_reset();
    ASSERT_EQ(0u, mpp_init(MPP_SERVICE_SSH));
    ASSERT_EQ(0u, mpp_vrf_nft_init(red));
    EXPECT_TRUE(is_blocked());
    ASSERT_EQ(0u, mpp_vrf_block(red));
    reach_loop();
    EXPECT_TRUE(is_blocked());
}

// Single services whose lists are not loaded.

platform_status block_ssh_ipv4() {
    return mpp_service_block(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, red);
}

platform_status unblock_ssh_ipv4() {
    return mpp_service_unblock(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, red);
}

TEST_F(mpp_test, a_service_without_its_list_stays_blocked_when_the_vrf_is_unblocked) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    ASSERT_EQ(0u, block_ssh_ipv4());
    EXPECT_TRUE(is_blocked());
    reach_loop();
    EXPECT_EQ(filter_ssh_ipv4, blocked_ports());
    EXPECT_FALSE(status_of(red).blocked);
    EXPECT_EQ(status_of(red).closed, std::vector<std::string>{"ssh ipv4"});
    ASSERT_EQ(0u, mpp_vrf_block(red));
    EXPECT_TRUE(is_blocked());
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    reach_loop();
    EXPECT_EQ(filter_ssh_ipv4, blocked_ports());
}

TEST_F(mpp_test, a_service_is_blocked_immediately_and_unblocked_after_the_handler) {
    open_services();
    ASSERT_EQ(0u, block_ssh_ipv4());
    ASSERT_EQ(0u, mpp_service_block(MPP_SERVICE_NETCONF, MPP_FAMILY_IPV6, red));
    EXPECT_EQ(filter_ssh_ipv4 | filter_netconf_ipv6, blocked_ports());
    ASSERT_EQ(0u, unblock_ssh_ipv4());
    EXPECT_EQ(filter_ssh_ipv4 | filter_netconf_ipv6, blocked_ports());
    reach_loop();
    EXPECT_EQ(filter_netconf_ipv6, blocked_ports());
    ASSERT_EQ(0u, unblock_ssh_ipv4());
    ASSERT_EQ(0u, mpp_service_unblock(MPP_SERVICE_NETCONF, MPP_FAMILY_IPV6, red));
    reach_loop();
    EXPECT_EQ(0u, blocked_ports());
}

TEST_F(mpp_test, blocking_a_service_again_cancels_its_unblock) {
    open_services();
    ASSERT_EQ(0u, block_ssh_ipv4());
    ASSERT_EQ(0u, unblock_ssh_ipv4());
    ASSERT_EQ(0u, block_ssh_ipv4());
    reach_loop();
    EXPECT_EQ(filter_ssh_ipv4, blocked_ports());
}

TEST_F(mpp_test, the_services_and_families_are_checked) {
    open_services();
    EXPECT_EQ(invalid, mpp_service_block(2, MPP_FAMILY_IPV4, red));
    EXPECT_EQ(invalid, mpp_service_block(MPP_SERVICE_SSH, 5, red));
    EXPECT_EQ(invalid, mpp_service_unblock(MPP_SERVICE_SSH, 0, red));
    EXPECT_EQ(invalid, mpp_service_block(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, nullptr));
    EXPECT_EQ(invalid, mpp_service_unblock(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "a b"));
    EXPECT_EQ(static_cast<platform_status>(ENOENT), mpp_service_block(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "none"));
    EXPECT_EQ(0u, mpp_service_unblock(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "none"));
    EXPECT_TRUE(mpp_status().empty());
}

TEST_F(mpp_test, a_service_that_cannot_be_blocked_is_blocked_later) {
    open_services();
    {
        const no_descriptors_left none;
        EXPECT_EQ(static_cast<platform_status>(EMFILE), block_ssh_ipv4());
    }
    EXPECT_EQ(0u, blocked_ports());
    reach_loop();
    EXPECT_EQ(filter_ssh_ipv4, blocked_ports());
}

TEST_F(mpp_test, a_vrf_is_unblocked_only_with_its_services_blocked) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, block_ssh_ipv4());
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    {
        const no_descriptors_left none;
        reach_loop();
    }
    EXPECT_TRUE(is_blocked());
    EXPECT_TRUE(run_until([&] { return !status_of(red).blocked; }));
    EXPECT_EQ(filter_ssh_ipv4, blocked_ports());
}

TEST_F(mpp_test, a_blocked_service_survives_the_agent_until_the_next_one_reaches_its_loop) {
    open_services();
    ASSERT_EQ(0u, block_ssh_ipv4());
    mpp_reset();
    EXPECT_EQ(filter_ssh_ipv4, blocked_ports());
    ASSERT_EQ(0u, mpp_init(MPP_SERVICE_SSH));
    EXPECT_EQ(filter_ssh_ipv4, blocked_ports());
    reach_loop();
    EXPECT_EQ(0u, blocked_ports());
}

TEST_F(mpp_test, a_service_blocked_again_by_the_next_agent_is_never_open) {
    open_services();
    ASSERT_EQ(0u, block_ssh_ipv4());
    mpp_reset();
    ASSERT_EQ(0u, mpp_init(MPP_SERVICE_SSH));
    ASSERT_EQ(0u, mpp_vrf_nft_init(red));
    EXPECT_EQ(filter_ssh_ipv4, blocked_ports());
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    ASSERT_EQ(0u, block_ssh_ipv4());
    reach_loop();
    EXPECT_EQ(filter_ssh_ipv4, blocked_ports());
}

TEST_F(mpp_test, a_blocked_service_is_dropped_with_its_namespace) {
    open_services();
    ASSERT_EQ(0u, block_ssh_ipv4());
    remove_vrf(red);
    ASSERT_EQ(0u, mpp_namespace_deleted("vrf-red"));
    EXPECT_TRUE(mpp_status().empty());
}

TEST_F(mpp_test, an_operator_lifts_all_blocks_of_a_vrf_at_once) {
    open_services();
    std::vector<std::string> lifted;
    EXPECT_EQ(0u, mpp_lift_blocks(red, lifted));
    EXPECT_TRUE(lifted.empty());
    ASSERT_EQ(0u, block_ssh_ipv4());
    EXPECT_EQ(0u, mpp_lift_blocks(red, lifted));
    EXPECT_EQ(lifted, std::vector<std::string>{"ssh ipv4"});
    EXPECT_EQ(0u, blocked_ports());
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, block_ssh_ipv4());
    EXPECT_EQ(0u, mpp_lift_blocks(red, lifted));
    EXPECT_EQ(lifted, (std::vector<std::string>{"ssh ipv4", "ssh ipv6", "netconf ipv4", "netconf ipv6"}));
    EXPECT_EQ(0u, blocked_ports());
    ASSERT_EQ(0u, unblock_ssh_ipv4()) << "the agent is not involved";
    reach_loop();
    EXPECT_EQ(0u, blocked_ports());
}

TEST_F(mpp_test, blocks_that_cannot_be_lifted_remain) {
    open_services();
    ASSERT_EQ(0u, block_ssh_ipv4());
    std::vector<std::string> lifted;
    {
        const no_descriptors_left none;
        EXPECT_EQ(static_cast<platform_status>(EMFILE), mpp_lift_blocks(red, lifted));
    }
    EXPECT_TRUE(lifted.empty());
    EXPECT_EQ(status_of(red).closed, std::vector<std::string>{"ssh ipv4"});
    reach_loop();
    EXPECT_EQ(filter_ssh_ipv4, blocked_ports());
}

TEST_F(mpp_test, without_a_loop_nothing_can_be_unblocked) {
    event_manager_free(manager);
    manager = nullptr;
    EXPECT_EQ(static_cast<platform_status>(ENOTCONN), mpp_vrf_unblock(red));
    EXPECT_EQ(static_cast<platform_status>(ENOTCONN), mpp_init(MPP_SERVICE_SSH));
}

}  // namespace
