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
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

#include "linux/process/recorded_commands.h"
#include "linux/reporting/log_message_internal.h"
#include "linux/vrf/mpp_filter_socket.h"

namespace {

constexpr const char* table_name = mpp_filter_table;
constexpr char set_name[] = "blocked_ports";
constexpr char chain_name[] = "input";
/// Stored with the table and shown by nft: a table with this comment has exactly the layout built here. To be changed
/// with it.
constexpr char table_comment[] = "management-plane protection, 2";
constexpr uint32_t set_id = 1;
constexpr int32_t chain_priority = -10;  ///< before the access lists

/// nft's number of the type nf_proto . inet_service; nft needs it to show the set.
constexpr uint32_t key_datatype = 2U << 6 | 13U;

/// The key of a port in the set, as it lies in the kernel's registers of four bytes.
struct port_key {
    uint8_t family;
    uint8_t padding[3];
    uint16_t port;  ///< in network byte order
    uint8_t port_padding[2];
};
static_assert(sizeof(port_key) == 8);

struct port_element {
    filter_ports bit;
    uint8_t family;
    uint16_t port;
};
constexpr port_element port_elements[] = {
    {filter_ssh_ipv4, NFPROTO_IPV4, 22},
    {filter_ssh_ipv6, NFPROTO_IPV6, 22},
    {filter_netconf_ipv4, NFPROTO_IPV4, 830},
    {filter_netconf_ipv6, NFPROTO_IPV6, 830},
};

port_key key_of(const port_element& row) {
    return {row.family, {}, htons(row.port), {}};
}

/// The kernel's bit for the state "established" (IP_CT_ESTABLISHED) of a tracked connection.
constexpr uint32_t established_state = 1U << 1;

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
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, key_datatype);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, sizeof(port_key));
    nftnl_set_nlmsg_build_payload(batch.begin_message(NFT_MSG_NEWSET), set.get());
    batch.end_message();
}

void add_ports(filter_batch& batch, filter_ports ports) {
    const set_pointer set = make_set();
    for (const port_element& row : port_elements) {
        if ((ports & row.bit) == 0) {
            continue;
        }
        nftnl_set_elem* element = required(nftnl_set_elem_alloc());
        const port_key key = key_of(row);
        nftnl_set_elem_set(element, NFTNL_SET_ELEM_KEY, &key, sizeof key);
        nftnl_set_elem_add(set.get(), element);
    }
    nftnl_set_elems_nlmsg_build_payload(batch.begin_message(NFT_MSG_NEWSETELEM), set.get());
    batch.end_message();
}

/// Removes all ports from the set.
void remove_ports(filter_batch& batch) {
    const set_pointer set = make_set();
    nftnl_set_elems_nlmsg_build_payload(batch.begin_message(NFT_MSG_DELSETELEM), set.get());
    batch.end_message();
}

nftnl_expr* add_expression(nftnl_rule* rule, const char* name) {
    nftnl_expr* expression = required(nftnl_expr_alloc(name));
    nftnl_rule_add_expr(rule, expression);
    return expression;
}

void load_transport(nftnl_rule* rule, uint32_t offset, uint32_t length, uint32_t to) {
    nftnl_expr* payload = add_expression(rule, "payload");
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_BASE, NFT_PAYLOAD_TRANSPORT_HEADER);
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_LEN, length);
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_DREG, to);
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

/// Keeps only the bits of the mask in the first register.
void mask_register(nftnl_rule* rule, const void* mask, uint32_t size) {
    constexpr uint32_t nothing = 0;
    nftnl_expr* bitwise = add_expression(rule, "bitwise");
    nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_SREG, NFT_REG_1);
    nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_DREG, NFT_REG_1);
    nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_OP, NFT_BITWISE_BOOL);
    nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_LEN, size);
    nftnl_expr_set(bitwise, NFTNL_EXPR_BITWISE_MASK, mask, size);
    nftnl_expr_set(bitwise, NFTNL_EXPR_BITWISE_XOR, &nothing, size);
}

void match_first_packet(nftnl_rule* rule) {
    load_transport(rule, tcp_flags_offset, sizeof flags_mask, NFT_REG_1);
    mask_register(rule, &flags_mask, sizeof flags_mask);
    compare_equal(rule, flags_first);
}

/// The address family and the port go into neighbouring registers, which together are the key.
void match_blocked_port(nftnl_rule* rule) {
    nftnl_expr* family = add_expression(rule, "meta");
    nftnl_expr_set_u32(family, NFTNL_EXPR_META_KEY, NFT_META_NFPROTO);
    nftnl_expr_set_u32(family, NFTNL_EXPR_META_DREG, NFT_REG32_00);
    load_transport(rule, tcp_port_offset, sizeof(uint16_t), NFT_REG32_01);
    nftnl_expr* lookup = add_expression(rule, "lookup");
    nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SREG, NFT_REG32_00);
    nftnl_expr_set_str(lookup, NFTNL_EXPR_LOOKUP_SET, set_name);
    nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SET_ID, set_id);
}

void match_established(nftnl_rule* rule) {
    constexpr uint32_t nothing = 0;
    nftnl_expr* tracking = add_expression(rule, "ct");
    nftnl_expr_set_u32(tracking, NFTNL_EXPR_CT_KEY, NFT_CT_STATE);
    nftnl_expr_set_u32(tracking, NFTNL_EXPR_CT_DREG, NFT_REG_1);
    mask_register(rule, &established_state, sizeof established_state);
    nftnl_expr* compare = add_expression(rule, "cmp");
    nftnl_expr_set_u32(compare, NFTNL_EXPR_CMP_SREG, NFT_REG_1);
    nftnl_expr_set_u32(compare, NFTNL_EXPR_CMP_OP, NFT_CMP_NEQ);
    nftnl_expr_set(compare, NFTNL_EXPR_CMP_DATA, &nothing, sizeof nothing);
}

void decide(nftnl_rule* rule, uint32_t verdict) {
    nftnl_expr* immediate = add_expression(rule, "immediate");
    nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
    nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_VERDICT, verdict);
}

rule_pointer make_rule() {
    rule_pointer rule = required(rule_pointer(nftnl_rule_alloc()));
    nftnl_rule_set_u32(rule.get(), NFTNL_RULE_FAMILY, NFPROTO_INET);
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, table_name);
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, chain_name);
    return rule;
}

void append_rule(filter_batch& batch, nftnl_rule* rule) {
    nftnl_rule_nlmsg_build_payload(batch.begin_message(NFT_MSG_NEWRULE, NLM_F_APPEND), rule);
    batch.end_message();
}

void add_rules(filter_batch& batch) {
    const rule_pointer tracking = make_rule();
    match_established(tracking.get());
    decide(tracking.get(), NF_ACCEPT);
    append_rule(batch, tracking.get());
    const rule_pointer block = make_rule();
    match_protocol(block.get());
    match_first_packet(block.get());
    match_blocked_port(block.get());
    decide(block.get(), NF_DROP);
    append_rule(batch, block.get());
}

uint32_t flags_for(filter_ports blocked) {
    return blocked != 0 ? 0 : NFT_TABLE_F_DORMANT;
}

/// The elements of the set: all ports while the table is dormant.
filter_ports ports_for(filter_ports blocked) {
    return blocked != 0 ? blocked : filter_all_ports;
}

void add_whole_table(filter_batch& batch, filter_ports blocked) {
    add_table(batch, NFT_MSG_NEWTABLE, flags_for(blocked));
    add_chain(batch);
    add_set(batch);
    add_ports(batch, ports_for(blocked));
    add_rules(batch);
}

int make_new_table(const filter_connection& connection, filter_ports blocked) {
    filter_batch batch;
    add_whole_table(batch, blocked);
    return connection.transact(batch);
}

int replace_table(const filter_connection& connection, filter_ports blocked) {
    filter_batch batch;
    add_table(batch, NFT_MSG_DELTABLE, 0);
    add_whole_table(batch, blocked);
    return connection.transact(batch);
}

int change_table(const filter_connection& connection, filter_ports blocked) {
    filter_batch batch;
    if (ports_for(blocked) != filter_all_ports) {
        remove_ports(batch);
    }
    add_ports(batch, ports_for(blocked));
    add_table(batch, NFT_MSG_NEWTABLE, flags_for(blocked));
    return connection.transact(batch);
}

struct filter_state {
    bool exists;
    bool dormant;
    bool up_to_date;       ///< has exactly the layout built here
    filter_ports blocked;  ///< what is blocked; everything if a table of another layout is not dormant
};

bool has_comment(const nftnl_table* table) {
    uint32_t size = 0;
    const void* data = nftnl_table_get_data(table, NFTNL_TABLE_USERDATA, &size);
    const table_userdata expected;
    return data != nullptr && size == expected.size() && memcmp(data, expected.data(), size) == 0;
}

/// Called with the kernel's description of the table.
int note_table(const nlmsghdr* header, void* data) {
    const table_pointer table(nftnl_table_alloc());
    if (table == nullptr || nftnl_table_nlmsg_parse(header, table.get()) < 0) {
        return MNL_CB_ERROR;
    }
    const bool dormant = (nftnl_table_get_u32(table.get(), NFTNL_TABLE_FLAGS) & NFT_TABLE_F_DORMANT) != 0;
    *static_cast<filter_state*>(data) = {true, dormant, has_comment(table.get()), dormant ? 0 : filter_all_ports};
    return MNL_CB_OK;
}

int note_port(nftnl_set_elem* element, void* data) {
    uint32_t size = 0;
    const void* key = nftnl_set_elem_get(element, NFTNL_SET_ELEM_KEY, &size);
    for (const port_element& row : port_elements) {
        const port_key expected = key_of(row);
        if (key != nullptr && size == sizeof expected && memcmp(key, &expected, size) == 0) {
            *static_cast<filter_ports*>(data) |= row.bit;
        }
    }
    return 0;
}

/// Called with the kernel's description of the set, possibly in parts.
int note_ports(const nlmsghdr* header, void* data) {
    const set_pointer set(nftnl_set_alloc());
    if (set == nullptr || nftnl_set_elems_nlmsg_parse(header, set.get()) < 0) {
        return MNL_CB_ERROR;
    }
    nftnl_set_elem_foreach(set.get(), note_port, data);
    return MNL_CB_OK;
}

int read_ports(const filter_connection& connection, filter_ports& ports) {
    char request[256] = {};  // Zeroed because the padding of attributes is sent to the kernel, too.
    const set_pointer set = make_set();
    nlmsghdr* header = nftnl_nlmsg_build_hdr(request, NFT_MSG_GETSETELEM, NFPROTO_INET, NLM_F_DUMP | NLM_F_ACK, 0);
    nftnl_set_elems_nlmsg_build_payload(header, set.get());
    ports = 0;
    return connection.ask(header, note_ports, &ports);
}

int read_state(const filter_connection& connection, filter_state& state) {
    char request[256] = {};
    const table_pointer table = required(table_pointer(nftnl_table_alloc()));
    nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, table_name);
    nlmsghdr* header = nftnl_nlmsg_build_hdr(request, NFT_MSG_GETTABLE, NFPROTO_INET, NLM_F_ACK, 0);
    nftnl_table_nlmsg_build_payload(header, table.get());
    state = {};
    const int error = connection.ask(header, note_table, &state);
    if (error != 0 || state.dormant || !state.up_to_date) {
        return error == ENOENT ? 0 : error;
    }
    return read_ports(connection, state.blocked);
}

int make_table(const filter_connection& connection, filter_ports blocked) {
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

/// Needs not know what a present table contains.
int replace_any_table(const filter_connection& connection, filter_ports blocked) {
    filter_state state = {};
    const int error = read_state(connection, state);
    if (error != 0) {
        return error;
    }
    return state.exists ? replace_table(connection, blocked) : make_new_table(connection, blocked);
}

int open_ports(const filter_connection& connection) {
    filter_state state = {};
    const int error = read_state(connection, state);
    return error != 0 || state.blocked == 0 ? error : make_table(connection, 0);
}

/// Runs an operation in a VRF's namespace and reports what went wrong. Does nothing in a copy of the agent
/// whose commands are recorded.
template <typename Operation>
platform_status in_vrf(const std::string& vrf_name, const char* complaint, std::string& failure, Operation operation) {
    if (commands_are_recorded()) {
        return PLATFORM_OK;
    }
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

platform_status mpp_filter_make(const std::string& vrf_name, filter_ports blocked, std::string& failure) {
    return in_vrf(vrf_name, "Cannot create the packet filter", failure,
                  [&](const filter_connection& connection) { return make_table(connection, blocked); });
}

platform_status mpp_filter_replace(const std::string& vrf_name, filter_ports blocked, std::string& failure) {
    return in_vrf(vrf_name, "Cannot create the packet filter", failure,
                  [&](const filter_connection& connection) { return replace_any_table(connection, blocked); });
}

int mpp_filter_make_here(filter_ports blocked) {
    filter_connection connection;
    const int error = connection.open_here();
    return error == 0 ? make_new_table(connection, blocked) : error;
}

platform_status mpp_filter_block(const std::string& vrf_name, filter_ports blocked, std::string& failure) {
    return in_vrf(vrf_name, "Cannot block the ports", failure,
                  [&](const filter_connection& connection) { return make_table(connection, blocked); });
}

platform_status mpp_filter_open(const std::string& vrf_name, std::string& failure) {
    return in_vrf(vrf_name, "Cannot open the ports", failure, open_ports);
}

platform_status mpp_filter_blocked(const std::string& vrf_name, filter_ports& blocked, std::string& failure) {
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
