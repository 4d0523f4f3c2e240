/// What all implementations of the ACL service share: its record types and the names of its values.
#include <arpa/inet.h>

#include <bit>

#include "platform/acl_entry.h"
#include "platform/acl_service.h"

namespace {

constexpr record_descriptor ipv4_entry = {"ipv4_acl_edm_ace", "ipv4_acl_edm_bag_desc.dll", ACL_IPV4_ENTRY_SCHEMA,
                                          ACL_IPV4_ENTRY_COMPACT_SCHEMA};
constexpr record_descriptor ipv6_entry = {"ipv6_acl_edm_ace", "libipv6_acl_edm_bag_desc.dll", ACL_IPV6_ENTRY_SCHEMA,
                                          ACL_IPV6_ENTRY_COMPACT_SCHEMA};

}  // namespace

const record_descriptor* acl_service_ipv4_entry_descriptor() {
    return &ipv4_entry;
}

const record_descriptor* acl_service_ipv6_entry_descriptor() {
    return &ipv6_entry;
}

int acl_service_ipv6_prefix_length(const uint8_t mask[16], uint32_t* length) {
    uint32_t ones = 0;
    int octet = 0;
    while (octet < 16 && mask[octet] == 0xff) {
        ones += 8;
        octet++;
    }
    if (octet < 16) {
        const auto leading = static_cast<uint32_t>(std::countl_one(mask[octet]));
        if (static_cast<uint8_t>(mask[octet] << leading) != 0) {
            return 0;
        }
        ones += leading;
    }
    for (octet++; octet < 16; octet++) {
        if (mask[octet] != 0) {
            return 0;
        }
    }
    *length = ones;
    return 1;
}

const char* ipv6_address_text(const uint8_t address[16], char* buffer) {
    return inet_ntop(AF_INET6, address, buffer, INET6_ADDRSTRLEN);
}
