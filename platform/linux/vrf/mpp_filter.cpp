#include "linux/vrf/mpp_filter.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <libnftnl/udata.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "linux/reporting/log_message_internal.h"
#include "linux/vrf/mpp_filter_socket.h"

namespace {

constexpr char table_name[] = "norvo_mpp";
constexpr char set_name[] = "service_ports";
constexpr char chain_name[] = "input";
/// Stored with the table and shown by nft: a table with this comment has exactly the layout built here. To be changed
/// with it.
constexpr char table_comment[] = "management-plane protection, 1";
constexpr uint32_t set_id = 1;
constexpr uint32_t port_datatype = 13;   ///< nft's number of the type inet_service; nft needs it to show the set
constexpr int32_t chain_priority = -10;  ///< before the access lists
constexpr uint16_t service_ports[] = {22, 830};

/// Offset of the flags in the TCP header, and the flags that mark the first packet of a connection.
constexpr uint32_t tcp_port_offset = 2;
constexpr uint32_t tcp_flags_offset = 13;
constexpr uint8_t flags_mask = TH_FIN | TH_SYN | TH_RST | TH_ACK;
constexpr uint8_t flags_first = TH_SYN;

template <typename T, void (*free_object)(const T*)>
struct deleter {
    void operator()(T* object) const { free_object(object); }
};
using table_pointer = std::unique_ptr<nftnl_table, deleter<nftnl_table, nftnl_table_free>>;
using chain_pointer = std::unique_ptr<nftnl_chain, deleter<nftnl_chain, nftnl_chain_free>>;
using rule_pointer = std::unique_ptr<nftnl_rule, deleter<nftnl_rule, nftnl_rule_free>>;
using set_pointer = std::unique_ptr<nftnl_set, deleter<nftnl_set, nftnl_set_free>>;

template <typename Pointer>
Pointer required(Pointer object) {
    if (object == nullptr) {
        throw std::bad_alloc();
    }
    return object;
}

/// The user data of a table, here the comment, in nft's encoding.
class table_userdata {
  public:
    table_userdata() : buffer(required(nftnl_udata_buf_alloc(sizeof table_comment + 16))) {
        nftnl_udata_put_strz(buffer, NFTNL_UDATA_TABLE_COMMENT, table_comment);
    }
    ~table_userdata() { nftnl_udata_buf_free(buffer); }
    table_userdata(const table_userdata&) = delete;
    table_userdata& operator=(const table_userdata&) = delete;
    const void* data() const { return nftnl_udata_buf_data(buffer); }
    uint32_t size() const { return nftnl_udata_buf_len(buffer); }

  private:
    nftnl_udata_buf* buffer;
};

void add_table(filter_batch& batch, uint16_t type, uint32_t table_flags) {
    const table_pointer table = required(table_pointer(nftnl_table_alloc()));
    nftnl_table_set_u32(table.get(), NFTNL_TABLE_FAMILY, NFPROTO_INET);
    nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, table_name);
    nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, table_flags);
    const table_userdata userdata;
    nftnl_table_set_data(table.get(), NFTNL_TABLE_USERDATA, userdata.data(), userdata.size());
    nftnl_table_nlmsg_build_payload(batch.begin_message(type), table.get());
    batch.end_message();
}

void add_chain(filter_batch& batch) {
    const chain_pointer chain = required(chain_pointer(nftnl_chain_alloc()));
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, table_name);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, chain_name);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter");
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, NF_INET_LOCAL_IN);
    nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, chain_priority);
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
    nftnl_chain_nlmsg_build_payload(batch.begin_message(NFT_MSG_NEWCHAIN), chain.get());
    batch.end_message();
}

set_pointer make_set() {
    set_pointer set = required(set_pointer(nftnl_set_alloc()));
    nftnl_set_set_u32(set.get(), NFTNL_SET_FAMILY, NFPROTO_INET);
    nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, table_name);
    nftnl_set_set_str(set.get(), NFTNL_SET_NAME, set_name);
    return set;
}

void add_set(filter_batch& batch) {
    const set_pointer set = make_set();
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, set_id);
    nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_CONSTANT);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, port_datatype);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, sizeof(uint16_t));
    nftnl_set_nlmsg_build_payload(batch.begin_message(NFT_MSG_NEWSET), set.get());
    batch.end_message();
}

void add_service_ports(filter_batch& batch) {
    const set_pointer set = make_set();
    for (const uint16_t port : service_ports) {
        nftnl_set_elem* element = required(nftnl_set_elem_alloc());
        const uint16_t key = htons(port);
        nftnl_set_elem_set(element, NFTNL_SET_ELEM_KEY, &key, sizeof key);
        nftnl_set_elem_add(set.get(), element);
    }
    nftnl_set_elems_nlmsg_build_payload(batch.begin_message(NFT_MSG_NEWSETELEM), set.get());
    batch.end_message();
}

nftnl_expr* add_expression(nftnl_rule* rule, const char* name) {
    nftnl_expr* expression = required(nftnl_expr_alloc(name));
    nftnl_rule_add_expr(rule, expression);
    return expression;
}

void load_transport(nftnl_rule* rule, uint32_t offset, uint32_t length) {
    nftnl_expr* payload = add_expression(rule, "payload");
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_BASE, NFT_PAYLOAD_TRANSPORT_HEADER);
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_LEN, length);
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_DREG, NFT_REG_1);
}

void compare_equal(nftnl_rule* rule, uint8_t value) {
    nftnl_expr* compare = add_expression(rule, "cmp");
    nftnl_expr_set_u32(compare, NFTNL_EXPR_CMP_SREG, NFT_REG_1);
    nftnl_expr_set_u32(compare, NFTNL_EXPR_CMP_OP, NFT_CMP_EQ);
    nftnl_expr_set(compare, NFTNL_EXPR_CMP_DATA, &value, sizeof value);
}

void match_protocol(nftnl_rule* rule) {
    nftnl_expr* meta = add_expression(rule, "meta");
    nftnl_expr_set_u32(meta, NFTNL_EXPR_META_KEY, NFT_META_L4PROTO);
    nftnl_expr_set_u32(meta, NFTNL_EXPR_META_DREG, NFT_REG_1);
    compare_equal(rule, IPPROTO_TCP);
}

void match_first_packet(nftnl_rule* rule) {
    constexpr uint8_t nothing = 0;
    load_transport(rule, tcp_flags_offset, sizeof flags_mask);
    nftnl_expr* bitwise = add_expression(rule, "bitwise");
    nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_SREG, NFT_REG_1);
    nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_DREG, NFT_REG_1);
    nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_OP, NFT_BITWISE_BOOL);
    nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_LEN, sizeof flags_mask);
    nftnl_expr_set(bitwise, NFTNL_EXPR_BITWISE_MASK, &flags_mask, sizeof flags_mask);
    nftnl_expr_set(bitwise, NFTNL_EXPR_BITWISE_XOR, &nothing, sizeof nothing);
    compare_equal(rule, flags_first);
}

void match_service_port(nftnl_rule* rule) {
    load_transport(rule, tcp_port_offset, sizeof(uint16_t));
    nftnl_expr* lookup = add_expression(rule, "lookup");
    nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SREG, NFT_REG_1);
    nftnl_expr_set_str(lookup, NFTNL_EXPR_LOOKUP_SET, set_name);
    nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SET_ID, set_id);
}

void drop(nftnl_rule* rule) {
    nftnl_expr* verdict = add_expression(rule, "immediate");
    nftnl_expr_set_u32(verdict, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
    nftnl_expr_set_u32(verdict, NFTNL_EXPR_IMM_VERDICT, NF_DROP);
}

void add_rule(filter_batch& batch) {
    const rule_pointer rule = required(rule_pointer(nftnl_rule_alloc()));
    nftnl_rule_set_u32(rule.get(), NFTNL_RULE_FAMILY, NFPROTO_INET);
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, table_name);
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, chain_name);
    match_protocol(rule.get());
    match_first_packet(rule.get());
    match_service_port(rule.get());
    drop(rule.get());
    nftnl_rule_nlmsg_build_payload(batch.begin_message(NFT_MSG_NEWRULE, NLM_F_APPEND), rule.get());
    batch.end_message();
}

uint32_t flags_for(bool blocked) {
    return blocked ? 0 : NFT_TABLE_F_DORMANT;
}

void add_contents(filter_batch& batch) {
    add_chain(batch);
    add_set(batch);
    add_service_ports(batch);
    add_rule(batch);
}

int make_new_table(const filter_connection& connection, bool blocked) {
    filter_batch batch;
    add_table(batch, NFT_MSG_NEWTABLE, flags_for(blocked));
    add_contents(batch);
    return connection.transact(batch);
}

int replace_table(const filter_connection& connection, bool blocked) {
    filter_batch batch;
    add_table(batch, NFT_MSG_DELTABLE, 0);
    add_table(batch, NFT_MSG_NEWTABLE, flags_for(blocked));
    add_contents(batch);
    return connection.transact(batch);
}

int change_table(const filter_connection& connection, bool blocked) {
    filter_batch batch;
    add_table(batch, NFT_MSG_NEWTABLE, flags_for(blocked));
    return connection.transact(batch);
}

struct filter_state {
    bool exists;
    bool blocked;
    bool up_to_date;  ///< has exactly the layout built here
};

bool has_comment(const nftnl_table* table) {
    uint32_t size = 0;
    const void* data = nftnl_table_get_data(table, NFTNL_TABLE_USERDATA, &size);
    const table_userdata expected;
    return data != nullptr && size == expected.size() && memcmp(data, expected.data(), size) == 0;
}

/// Called with the kernel's description of the table.
int note_state(const nlmsghdr* header, void* data) {
    const table_pointer table(nftnl_table_alloc());
    if (table == nullptr || nftnl_table_nlmsg_parse(header, table.get()) < 0) {
        return MNL_CB_ERROR;
    }
    const bool dormant = (nftnl_table_get_u32(table.get(), NFTNL_TABLE_FLAGS) & NFT_TABLE_F_DORMANT) != 0;
    *static_cast<filter_state*>(data) = {true, !dormant, has_comment(table.get())};
    return MNL_CB_OK;
}

int read_state(const filter_connection& connection, filter_state& state) {
    char request[256] = {};  // Zeroed because the padding of attributes is sent to the kernel, too.
    const table_pointer table = required(table_pointer(nftnl_table_alloc()));
    nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, table_name);
    nlmsghdr* header = nftnl_nlmsg_build_hdr(request, NFT_MSG_GETTABLE, NFPROTO_INET, NLM_F_ACK, 0);
    nftnl_table_nlmsg_build_payload(header, table.get());
    state = {};
    const int error = connection.ask(header, note_state, &state);
    return error == ENOENT ? 0 : error;
}

int make_table(const filter_connection& connection, bool blocked) {
    filter_state state = {};
    const int error = read_state(connection, state);
    if (error != 0) {
        return error;
    }
    if (!state.exists) {
        return make_new_table(connection, blocked);
    }
    if (!state.up_to_date) {
        return replace_table(connection, blocked);
    }
    return state.blocked == blocked ? 0 : change_table(connection, blocked);
}

int block(const filter_connection& connection) {
    return make_table(connection, true);
}

int open_ports(const filter_connection& connection) {
    filter_state state = {};
    const int error = read_state(connection, state);
    return error != 0 || !state.blocked ? error : change_table(connection, false);
}

/// Runs an operation in a VRF's namespace and reports what went wrong.
template <typename Operation>
platform_status in_vrf(const std::string& vrf_name, const char* complaint, std::string& failure, Operation operation) {
    filter_connection connection;
    int error = connection.open_in_vrf(vrf_name);
    if (error == 0) {
        error = operation(connection);
    }
    if (error != 0) {
        failure = std::string(complaint) + " in namespace vrf-" + vrf_name + ": " + strerror(error);
    }
    return static_cast<platform_status>(error);
}

}  // namespace

platform_status mpp_filter_make(const std::string& vrf_name, bool blocked, std::string& failure) {
    return in_vrf(vrf_name, "Cannot create the packet filter", failure,
                  [&](const filter_connection& connection) { return make_table(connection, blocked); });
}

platform_status mpp_filter_block(const std::string& vrf_name, std::string& failure) {
    return in_vrf(vrf_name, "Cannot block the ports", failure, block);
}

platform_status mpp_filter_open(const std::string& vrf_name, std::string& failure) {
    return in_vrf(vrf_name, "Cannot open the ports", failure, open_ports);
}

platform_status mpp_filter_is_blocked(const std::string& vrf_name, bool& blocked, std::string& failure) {
    return in_vrf(vrf_name, "Cannot read the packet filter", failure, [&](const filter_connection& connection) {
        filter_state state = {};
        const int error = read_state(connection, state);
        if (error == 0) {
            blocked = state.blocked;
        }
        return error;
    });
}

platform_status mpp_filter_available(std::string& failure) {
    filter_connection connection;
    int error = connection.open_here();
    if (error == 0) {
        char request[64] = {};
        const nlmsghdr* header = nftnl_nlmsg_build_hdr(request, NFT_MSG_GETGEN, NFPROTO_UNSPEC, NLM_F_ACK, 0);
        error = connection.ask(header, nullptr, nullptr);
    }
    if (error != 0) {
        failure = std::string("Cannot reach the kernel's packet filter: ") + strerror(error);
    }
    return static_cast<platform_status>(error);
}
