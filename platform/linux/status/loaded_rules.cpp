#include "linux/status/loaded_rules.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <libnftnl/common.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "common/file_descriptor.h"
#include "linux/process/child_output.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"
#include "platform/acl_service.h"
#include "platform/mpp.h"

namespace {

struct table_row {
    uint32_t service;
    uint32_t family;
    uint16_t protocol;
    const char* table;
};

constexpr table_row tables[] = {
    {MPP_SERVICE_SSH, ACL_FAMILY_IPV4, NFPROTO_IPV4, "norvossh_v4acl"},
    {MPP_SERVICE_SSH, ACL_FAMILY_IPV6, NFPROTO_IPV6, "norvossh_v6acl"},
    {MPP_SERVICE_NETCONF, ACL_FAMILY_IPV4, NFPROTO_IPV4, "netconf_v4acl"},
    {MPP_SERVICE_NETCONF, ACL_FAMILY_IPV6, NFPROTO_IPV6, "netconf_v6acl"},
};

/// Whether the table in the current namespace has a rule. Only the first message of the answer is needed.
bool has_rules(const table_row& row) {
    const file_descriptor socket_fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    alignas(nlmsghdr) std::array<char, 256> request = {};
    nlmsghdr* header = nftnl_nlmsg_build_hdr(request.data(), NFT_MSG_GETRULE, row.protocol, NLM_F_DUMP, 1);
    mnl_attr_put_strz(header, NFTA_RULE_TABLE, row.table);
    if (socket_fd.get() < 0 || send(socket_fd.get(), header, header->nlmsg_len, 0) < 0) {
        return false;
    }
    alignas(nlmsghdr) std::array<char, 16384> answer = {};
    const ssize_t size = recv(socket_fd.get(), answer.data(), answer.size(), 0);
    const auto* first = reinterpret_cast<const nlmsghdr*>(answer.data());
    return size > 0 && mnl_nlmsg_ok(first, static_cast<int>(size)) &&
           first->nlmsg_type == ((NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_NEWRULE);
}

bool has_rules(const rule_place& place) {
    const auto* row = std::find_if(std::begin(tables), std::end(tables), [&place](const table_row& each) {
        return each.service == place.service && each.family == place.family;
    });
    return row != std::end(tables) && has_rules(*row);
}

bool enter(const std::string& vrf_name) {
    const std::string path = std::string(namespace_directory) + '/' + namespace_name_prefix + vrf_name;
    const file_descriptor target(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return target.get() >= 0 && setns(target.get(), CLONE_NEWNET) == 0;
}

/// The child: writes one character for each place. The places of one VRF are adjacent.
int write_findings(const std::vector<rule_place>& places, int fd) {
    std::string findings;
    const std::string* entered = nullptr;
    bool inside = false;
    for (const rule_place& place : places) {
        if (entered == nullptr || *entered != place.vrf_name) {
            entered = &place.vrf_name;
            inside = enter(place.vrf_name);
        }
        findings += inside && has_rules(place) ? '1' : '0';
    }
    return write(fd, findings.data(), findings.size()) == static_cast<ssize_t>(findings.size()) ? EXIT_SUCCESS
                                                                                                : EXIT_FAILURE;
}

}  // namespace

platform_status loaded_rules_query(const std::vector<rule_place>& places, std::set<rule_place>& loaded) {
    if (places.empty()) {
        return PLATFORM_OK;
    }
    std::string findings;
    const platform_status status =
        child_output([&places](int fd) { return write_findings(places, fd); }, child_output_limit, findings);
    for (size_t i = 0; i < std::min(places.size(), findings.size()); i++) {
        if (findings[i] == '1') {
            loaded.insert(places[i]);
        }
    }
    return status;
}
