#include "platform/packet_filter.h"

#include <arpa/inet.h>
#include <linux/netfilter.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <map>

#include "linux/packet_filter/table_comparison.h"
#include "platform/acl_service.h"

namespace {

uint8_t protocol_of(uint32_t family) {
    return family == ACL_FAMILY_IPV6 ? NFPROTO_IPV6 : NFPROTO_IPV4;
}

platform_status compare(const packet_filter_table* tables, size_t count, packet_filter_finding* findings) {
    std::map<const char*, table_maker> makers;
    std::vector<table_place> places;
    places.reserve(count);
    for (size_t i = 0; i < count; i++) {
        const char* commands = tables[i].commands;
        const table_maker* maker = nullptr;
        if (commands != nullptr) {
            maker = &makers.try_emplace(commands, [commands] { return run_nft_here(commands); }).first->second;
        }
        places.push_back({tables[i].vrf_name, protocol_of(tables[i].family), tables[i].table, maker});
    }
    std::vector<packet_filter_finding> found;
    const platform_status status = compare_tables(places, found);
    std::copy(found.begin(), found.end(), findings);
    return status;
}

}  // namespace

platform_status packet_filter_compare(const struct packet_filter_table* tables, size_t count,
                                      struct packet_filter_finding* findings) try {
    return compare(tables, count, findings);
} catch (const std::exception&) {
    return ENOMEM;
}
