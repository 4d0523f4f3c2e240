#include "linux/vrf/mpp_filter_socket.h"

#include <arpa/inet.h>
#include <libnftnl/common.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include "unit/linux/vrf/vrf_namespace_support.h"

using platform_test::add_vrf;
using platform_test::nft_in;
using platform_test::no_descriptors_left;
using platform_test::own_network_namespace;
using platform_test::remove_vrf;

namespace {

class filter_connection_test : public testing::Test {
  protected:
    void SetUp() override { add_vrf("red"); }
    void TearDown() override { remove_vrf("red"); }

    static void put_table(filter_batch& batch, uint16_t type, const char* name) {
        nftnl_table* table = nftnl_table_alloc();
        nftnl_table_set_u32(table, NFTNL_TABLE_FAMILY, NFPROTO_INET);
        nftnl_table_set_str(table, NFTNL_TABLE_NAME, name);
        nftnl_table_nlmsg_build_payload(batch.begin_message(type), table);
        batch.end_message();
        nftnl_table_free(table);
    }
    static int count_messages(const nlmsghdr*, void* data) {
        ++*static_cast<int*>(data);
        return MNL_CB_OK;
    }
    int ask_for_generation(const filter_connection& connection, mnl_cb_t note, void* data) {
        char request[64];
        return connection.ask(nftnl_nlmsg_build_hdr(request, NFT_MSG_GETGEN, NFPROTO_UNSPEC, NLM_F_ACK, 0), note, data);
    }
};

TEST_F(filter_connection_test, configures_the_vrfs_filter_and_leaves_the_process_in_its_namespace) {
    const ino_t own = own_network_namespace();
    filter_connection connection;
    ASSERT_EQ(0, connection.open_in_vrf("red"));
    EXPECT_EQ(own, own_network_namespace());
    filter_batch batch;
    put_table(batch, NFT_MSG_NEWTABLE, "one");
    put_table(batch, NFT_MSG_NEWTABLE, "two");
    EXPECT_EQ(0, connection.transact(batch));
    EXPECT_EQ("table inet one\ntable inet two\n", nft_in("red", "list tables"));
    EXPECT_EQ("", platform_test::output_of("nft list tables"));
}

TEST_F(filter_connection_test, a_batch_is_executed_completely_or_not_at_all) {
    filter_connection connection;
    ASSERT_EQ(0, connection.open_in_vrf("red"));
    filter_batch batch;
    put_table(batch, NFT_MSG_NEWTABLE, "one");
    put_table(batch, NFT_MSG_DELTABLE, "none");
    EXPECT_EQ(ENOENT, connection.transact(batch)) << "the first failure counts";
    EXPECT_EQ("", nft_in("red", "list tables"));
}

TEST_F(filter_connection_test, each_message_of_an_answer_is_evaluated) {
    filter_connection connection;
    ASSERT_EQ(0, connection.open_here());
    int messages = 0;
    EXPECT_EQ(0, ask_for_generation(connection, count_messages, &messages));
    EXPECT_EQ(1, messages);
    EXPECT_EQ(0, ask_for_generation(connection, nullptr, nullptr));
}

TEST_F(filter_connection_test, an_answer_that_cannot_be_read_is_a_failure) {
    filter_connection connection;
    ASSERT_EQ(0, connection.open_here());
    EXPECT_EQ(EBADMSG, ask_for_generation(
                           connection, [](const nlmsghdr*, void*) { return MNL_CB_ERROR; }, nullptr));
}

TEST_F(filter_connection_test, a_request_without_an_answer_is_a_failure) {
    filter_connection connection;
    ASSERT_EQ(0, connection.open_here());
    filter_batch nothing;
    EXPECT_EQ(EIO, connection.transact(nothing));
}

TEST_F(filter_connection_test, only_an_attached_namespace_can_be_opened) {
    filter_connection connection;
    EXPECT_EQ(ENOENT, connection.open_in_vrf("none"));
    platform_test::write_file("/run/netns/vrf-none", "");
    EXPECT_EQ(ENOENT, connection.open_in_vrf("none"));
    unlink("/run/netns/vrf-none");
    const no_descriptors_left none;
    EXPECT_EQ(EMFILE, connection.open_in_vrf("red"));
    EXPECT_EQ(EMFILE, connection.open_here());
}

/// The agent must not keep a deleted namespace and its interfaces alive.
TEST_F(filter_connection_test, a_closed_connection_leaves_nothing_behind) {
    const int before = dup(0);
    close(before);
    {
        filter_connection connection;
        ASSERT_EQ(0, connection.open_in_vrf("red"));
    }
    const int after = dup(0);
    close(after);
    EXPECT_EQ(before, after);
}

}  // namespace
