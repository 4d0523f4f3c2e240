#include "platform/mpp.h"

#include "linux/vrf/mpp_filter.h"
#include "linux/vrf/mpp_internal.h"
#include "unit/linux/vrf/vrf_namespace_support.h"

using platform_test::add_vrf;
using platform_test::journal_listener;
using platform_test::nft_in;
using platform_test::no_descriptors_left;
using platform_test::reachable;
using platform_test::remove_vrf;
using platform_test::vrf_listener;

namespace {

constexpr char red[] = "red";
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

    static bool is_blocked(const char* vrf = red) {
        bool blocked = false;
        std::string failure;
        EXPECT_EQ(0u, mpp_filter_is_blocked(vrf, blocked, failure)) << failure;
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
    /// What the handler that has just returned does: lets the loop come to what is waiting.
    void reach_loop() { run_for(5); }
};

TEST_F(mpp_test, a_server_is_started_behind_a_block) {
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

TEST_F(mpp_test, a_block_takes_a_requested_unblock_back) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    ASSERT_EQ(0u, mpp_vrf_block(red));
    EXPECT_FALSE(status_of(red).unblock_requested);
    reach_loop();
    EXPECT_TRUE(is_blocked()) << "the server that could not be started stays out of reach";
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
    EXPECT_TRUE(mpp_status().empty()) << "there is nothing to remember of either";
}

TEST_F(mpp_test, a_block_can_do_without_the_initialisation) {
    open_services();
    EXPECT_EQ(0u, mpp_vrf_block(red));
    EXPECT_TRUE(is_blocked());
    EXPECT_TRUE(status_of(red).initialised);
}

TEST_F(mpp_test, the_initialisation_does_not_open_what_is_blocked) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, mpp_vrf_nft_init(red));
    EXPECT_TRUE(is_blocked());
}

TEST_F(mpp_test, each_vrf_is_blocked_by_itself) {
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

TEST_F(mpp_test, marks_are_kept_for_the_operator) {
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
    EXPECT_EQ("", nft_in(red, "list ruleset")) << "a mark opens and closes nothing";
}

TEST_F(mpp_test, a_service_has_to_be_opened_first) {
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

TEST_F(mpp_test, a_namespace_counts_as_created_when_it_is_one) {
    open_services();
    EXPECT_EQ(0u, mpp_namespace_created("vrf-red"));
    EXPECT_EQ(static_cast<platform_status>(ENOENT), mpp_namespace_created("vrf-none"));
    platform_test::write_file("/run/netns/vrf-none", "");
    EXPECT_EQ(static_cast<platform_status>(ENOENT), mpp_namespace_created("vrf-none"));
    unlink("/run/netns/vrf-none");
}

TEST_F(mpp_test, a_namespace_that_is_made_again_begins_anew) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_set(MPP_SERVICE_SSH, red));
    ASSERT_EQ(0u, mpp_vrf_nft_init(red));
    ASSERT_EQ(0u, mpp_vrf_block(red));
    remove_vrf(red);
    ASSERT_EQ(0u, mpp_namespace_deleted("vrf-red"));
    EXPECT_FALSE(status_of(red).initialised);
    EXPECT_FALSE(status_of(red).blocked);
    EXPECT_TRUE(status_of(red).ssh) << "what the agent wants of the VRF does not change with its namespace";
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    reach_loop();
    add_vrf(red);
    ASSERT_EQ(0u, mpp_namespace_created("vrf-red"));
    EXPECT_FALSE(is_blocked());
    ASSERT_EQ(0u, mpp_vrf_block(red));
    EXPECT_TRUE(is_blocked());
}

TEST_F(mpp_test, an_unblock_finds_the_namespace_gone) {
    open_services();
    ASSERT_EQ(0u, mpp_vrf_block(red));
    ASSERT_EQ(0u, mpp_vrf_unblock(red));
    remove_vrf(red);
    journal_listener journal;
    reach_loop();
    EXPECT_EQ("", journal.messages());
    EXPECT_TRUE(mpp_status().empty());
}

TEST_F(mpp_test, a_vrf_that_cannot_be_opened_is_opened_later) {
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

/// A new process finds what the one before it has left.
TEST_F(mpp_test, a_block_outlives_the_agent_until_the_next_one_reaches_its_loop) {
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

TEST_F(mpp_test, a_block_that_was_left_behind_can_be_taken_over_by_a_new_one) {
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

TEST_F(mpp_test, nothing_can_be_opened_without_a_loop) {
    event_manager_free(manager);
    manager = nullptr;
    EXPECT_EQ(static_cast<platform_status>(ENOTCONN), mpp_vrf_unblock(red));
    EXPECT_EQ(static_cast<platform_status>(ENOTCONN), mpp_init(MPP_SERVICE_SSH));
}

}  // namespace
