#include "linux/vrf/mpp_filter.h"

#include <sys/mount.h>
#include <sys/wait.h>

#include <memory>
#include <vector>

#include "unit/linux/vrf/vrf_namespace_support.h"

using platform_test::add_vrf;
using platform_test::connect_to_vrf;
using platform_test::nft_in;
using platform_test::no_descriptors_left;
using platform_test::own_network_namespace;
using platform_test::reachable;
using platform_test::red;
using platform_test::remove_vrf;
using platform_test::run;
using platform_test::vrf_listener;

namespace {

const platform_status absent = ENOENT;

class mpp_filter_test : public testing::Test {
  protected:
    void SetUp() override {
        add_vrf(red);
        own = own_network_namespace();
    }
    void TearDown() override {
        listeners.clear();
        remove_vrf(red);
        EXPECT_EQ(own, own_network_namespace());
    }
    void listen_on(uint16_t port) {
        for (const int family : {AF_INET, AF_INET6}) {
            listeners.push_back(std::make_unique<vrf_listener>(red, family, port));
        }
    }
    void expect_reachable(bool expected) {
        for (const uint16_t port : {22, 830}) {
            EXPECT_EQ(expected, reachable(red, port, AF_INET)) << port;
            EXPECT_EQ(expected, reachable(red, port, AF_INET6)) << port;
        }
        EXPECT_EQ(expected ? 0 : filter_all_ports, blocked());
    }
    platform_status block(filter_ports ports = filter_all_ports) { return mpp_filter_block(red, ports, failure); }
    filter_ports blocked() {
        filter_ports ports = UINT32_MAX;
        EXPECT_EQ(0u, mpp_filter_blocked(red, ports, failure)) << failure;
        return ports;
    }

    std::vector<std::unique_ptr<vrf_listener>> listeners;
    std::string failure;
    ino_t own = 0;
};

/// nft separates the flags with an empty line.
const std::string first_line = "table inet norvo_mpp {\n";
const std::string comment = "\tcomment \"management-plane protection, 2\"\n";
std::string contents_with(const std::string& elements) {
    return "\tset blocked_ports {\n"
           "\t\ttype nf_proto . inet_service\n"
           "\t\telements = { " +
           elements +
           " }\n"
           "\t}\n"
           "\n"
           "\tchain input {\n"
           "\t\ttype filter hook input priority filter - 10; policy accept;\n"
           "\t\tct state established accept\n"
           "\t\ttcp flags syn / fin,syn,rst,ack meta nfproto . tcp dport @blocked_ports drop\n"
           "\t}\n"
           "}\n";
}
const std::string contents =
    contents_with("ipv4 . 22,\n\t\t\t     ipv6 . 22,\n\t\t\t     ipv4 . 830,\n\t\t\t     ipv6 . 830");
const std::string open_table = first_line + "\tflags dormant\n" + comment + "\n" + contents;
const std::string blocked_table = first_line + comment + contents;

TEST_F(mpp_filter_test, the_table_is_what_an_operator_would_write) {
    ASSERT_EQ(0u, mpp_filter_make(red, 0, failure)) << failure;
    EXPECT_EQ(open_table, nft_in(red, "list ruleset"));
    ASSERT_EQ(0u, block()) << failure;
    EXPECT_EQ(blocked_table, nft_in(red, "list ruleset"));
    ASSERT_EQ(0u, mpp_filter_open(red, failure)) << failure;
    EXPECT_EQ(open_table, nft_in(red, "list ruleset"));
}

TEST_F(mpp_filter_test, a_blocked_vrf_accepts_no_new_connection) {
    listen_on(22);
    listen_on(830);
    expect_reachable(true);
    ASSERT_EQ(0u, mpp_filter_make(red, 0, failure));
    expect_reachable(true);
    ASSERT_EQ(0u, block());
    expect_reachable(false);
    ASSERT_EQ(0u, mpp_filter_open(red, failure));
    expect_reachable(true);
}

TEST_F(mpp_filter_test, other_ports_remain_reachable) {
    listen_on(2222);
    ASSERT_EQ(0u, block());
    EXPECT_TRUE(reachable(red, 2222, AF_INET));
    EXPECT_TRUE(reachable(red, 2222, AF_INET6));
}

/// The connection is older than the packet filter of its namespace.
TEST_F(mpp_filter_test, an_established_connection_continues) {
    const vrf_listener listener(red, AF_INET, 22);
    const int client = connect_to_vrf(red, AF_INET, 22);
    ASSERT_LE(0, client);
    const int server = listener.accept_one();
    ASSERT_EQ(0u, block());
    char byte = 0;
    for (const auto& [from, to] : {std::pair(client, server), std::pair(server, client)}) {
        EXPECT_EQ(1, write(from, "x", 1));
        pollfd waiting = {to, POLLIN, 0};
        EXPECT_EQ(1, poll(&waiting, 1, 500));
        EXPECT_EQ(1, read(to, &byte, 1));
    }
    close(client);
    close(server);
}

/// The client's second attempt, a second after the first, succeeds.
TEST_F(mpp_filter_test, a_waiting_client_gets_in_after_the_block) {
    listen_on(22);
    ASSERT_EQ(0u, block());
    const int fd = platform_test::socket_in_vrf(red, AF_INET);
    ASSERT_EQ(0, fcntl(fd, F_SETFL, O_NONBLOCK));
    const platform_test::loopback_address address(AF_INET, 22);
    EXPECT_EQ(-1, connect(fd, address.get(), address.size));
    pollfd waiting = {fd, POLLOUT, 0};
    EXPECT_EQ(0, poll(&waiting, 1, 100)) << "neither accepted nor refused";
    ASSERT_EQ(0u, mpp_filter_open(red, failure));
    EXPECT_EQ(1, poll(&waiting, 1, 3000));
    int error = -1;
    socklen_t size = sizeof error;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    EXPECT_EQ(0, error);
    close(fd);
}

TEST_F(mpp_filter_test, single_services_are_blocked) {
    listen_on(22);
    listen_on(830);
    ASSERT_EQ(0u, block(filter_ssh_ipv4 | filter_netconf_ipv6));
    const auto expect_those_blocked = [this] {
        EXPECT_FALSE(reachable(red, 22, AF_INET));
        EXPECT_TRUE(reachable(red, 22, AF_INET6));
        EXPECT_TRUE(reachable(red, 830, AF_INET));
        EXPECT_FALSE(reachable(red, 830, AF_INET6));
        EXPECT_EQ(filter_ssh_ipv4 | filter_netconf_ipv6, blocked());
        EXPECT_EQ(first_line + comment + contents_with("ipv4 . 22,\n\t\t\t     ipv6 . 830"),
                  nft_in(red, "list ruleset"));
    };
    expect_those_blocked();
    ASSERT_EQ(0u, block());
    expect_reachable(false);
    ASSERT_EQ(0u, block(filter_ssh_ipv4 | filter_netconf_ipv6));
    expect_those_blocked();
    ASSERT_EQ(0u, block(filter_ssh_ipv6));
    EXPECT_TRUE(reachable(red, 22, AF_INET));
    EXPECT_FALSE(reachable(red, 22, AF_INET6));
    ASSERT_EQ(0u, mpp_filter_open(red, failure));
    expect_reachable(true);
    EXPECT_EQ(open_table, nft_in(red, "list ruleset")) << "the next block must find all ports";
}

/// A session that began before any list was loaded counts as established when a list is loaded.
TEST_F(mpp_filter_test, connections_are_tracked_while_the_table_is_dormant) {
    ASSERT_EQ(0u, mpp_filter_make(red, 0, failure)) << failure;
    const vrf_listener listener(red, AF_INET, 22);
    const int client = connect_to_vrf(red, AF_INET, 22);
    ASSERT_LE(0, client);
    const int server = listener.accept_one();
    EXPECT_EQ("",
              nft_in(red,
                     "'add table ip acl; add chain ip acl input { type filter hook input priority 0; }; "
                     "add rule ip acl input ct state established accept; add rule ip acl input tcp dport 22 drop'"));
    char byte = 0;
    EXPECT_EQ(1, write(client, "x", 1));
    pollfd waiting = {server, POLLIN, 0};
    EXPECT_EQ(1, poll(&waiting, 1, 1000));
    EXPECT_EQ(1, recv(server, &byte, 1, MSG_DONTWAIT));
    EXPECT_FALSE(reachable(red, 22, AF_INET));
    close(client);
    close(server);
}

TEST_F(mpp_filter_test, a_namespace_without_the_table_is_open_and_can_be_blocked) {
    listen_on(22);
    listen_on(830);
    EXPECT_EQ(0u, blocked());
    EXPECT_EQ(0u, mpp_filter_open(red, failure));
    EXPECT_EQ("", nft_in(red, "list ruleset"));
    EXPECT_EQ(0u, block());
    expect_reachable(false);
}

TEST_F(mpp_filter_test, an_operators_flush_does_no_harm) {
    ASSERT_EQ(0u, block());
    EXPECT_EQ("", nft_in(red, "flush ruleset"));
    EXPECT_EQ(0u, mpp_filter_open(red, failure));
    EXPECT_EQ(0u, block());
    EXPECT_EQ(filter_all_ports, blocked());
}

TEST_F(mpp_filter_test, blocking_and_unblocking_twice_is_no_failure) {
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(0u, block()) << failure;
    }
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(0u, mpp_filter_open(red, failure)) << failure;
    }
}

TEST_F(mpp_filter_test, anything_else_under_the_tables_name_is_replaced) {
    EXPECT_EQ("", nft_in(red,
                         "'add table inet norvo_mpp; add chain inet norvo_mpp old; add set inet norvo_mpp "
                         "service_ports { type ipv4_addr; }'"));
    ASSERT_EQ(0u, mpp_filter_make(red, 0, failure)) << failure;
    EXPECT_EQ(open_table, nft_in(red, "list ruleset"));
    ASSERT_EQ(0u, mpp_filter_make(red, filter_all_ports, failure)) << failure;
    EXPECT_EQ(filter_all_ports, blocked());
}

/// The kernel gives each new table another handle, which nft shows after the table's first line.
std::string table_handle() {
    const std::string listing = nft_in(red, "-a list ruleset");
    return listing.substr(0, listing.find('\n'));
}

TEST_F(mpp_filter_test, a_table_of_this_version_is_kept) {
    ASSERT_EQ(0u, mpp_filter_make(red, 0, failure)) << failure;
    const std::string before = table_handle();
    EXPECT_NE(std::string::npos, before.find("# handle")) << before;
    ASSERT_EQ(0u, mpp_filter_make(red, filter_all_ports, failure)) << failure;
    EXPECT_EQ(before, table_handle());
    EXPECT_EQ(filter_all_ports, blocked());
    ASSERT_EQ(0u, mpp_filter_make(red, 0, failure)) << failure;
    EXPECT_EQ(before, table_handle());
}

TEST_F(mpp_filter_test, a_block_does_not_rely_on_a_table_of_another_version) {
    listen_on(22);
    listen_on(830);
    EXPECT_EQ("", nft_in(red, "'add table inet norvo_mpp'"));
    ASSERT_EQ(0u, block()) << failure;
    expect_reachable(false);
}

TEST_F(mpp_filter_test, other_tables_and_namespaces_are_left_alone) {
    add_vrf("blue");
    EXPECT_EQ("", nft_in(red, "add table inet access_lists"));
    ASSERT_EQ(0u, block());
    EXPECT_EQ("table inet access_lists\ntable inet norvo_mpp\n", nft_in(red, "list tables"));
    EXPECT_EQ("", nft_in("blue", "list tables"));
    EXPECT_EQ("", platform_test::output_of("nft list tables"));
    remove_vrf("blue");
}

TEST_F(mpp_filter_test, a_vrf_without_a_namespace_has_its_own_status) {
    filter_ports blocked = filter_ssh_ipv4;
    EXPECT_EQ(absent, mpp_filter_make("none", 0, failure));
    EXPECT_EQ("Cannot create the packet filter in namespace vrf-none: No such file or directory", failure);
    EXPECT_EQ(absent, mpp_filter_block("none", filter_all_ports, failure));
    EXPECT_EQ(absent, mpp_filter_open("none", failure));
    EXPECT_EQ("Cannot open the ports in namespace vrf-none: No such file or directory", failure);
    EXPECT_EQ(absent, mpp_filter_blocked("none", blocked, failure));
    EXPECT_EQ(filter_ssh_ipv4, blocked) << "the output stays untouched";
    platform_test::write_file("/run/netns/vrf-none", "");
    EXPECT_EQ(absent, mpp_filter_block("none", filter_all_ports, failure)) << "a file is no namespace yet";
    unlink("/run/netns/vrf-none");
}

TEST_F(mpp_filter_test, exhausted_descriptors_are_reported_and_leave_the_process_in_its_namespace) {
    const no_descriptors_left none;
    EXPECT_EQ(static_cast<platform_status>(EMFILE), block());
    EXPECT_EQ("Cannot block the ports in namespace vrf-red: Too many open files", failure);
    EXPECT_NE(0u, mpp_filter_available(failure));
    EXPECT_EQ("Cannot reach the kernel's packet filter: Too many open files", failure);
}

TEST_F(mpp_filter_test, a_missing_permission_is_reported) {
    EXPECT_EQ(0u, mpp_filter_available(failure)) << failure;
    const pid_t pid = fork();
    if (pid == 0) {
        std::string reason;
        const bool dropped = setgid(1000) == 0 && setuid(1000) == 0;
        const platform_status status = mpp_filter_available(reason);
        const bool as_expected = status == EPERM &&
                                 reason == "Cannot reach the kernel's packet filter: Operation not permitted" &&
                                 mpp_filter_block(red, filter_all_ports, reason) == EPERM;
        _exit(!dropped ? 2 : as_expected ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(0, WEXITSTATUS(status));
}

}  // namespace
