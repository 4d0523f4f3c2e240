/// Tables of the packet filter in the VRFs' network namespaces against what they should be.
///
/// What a table should be is made in an empty network namespace and read from the kernel in the same way, so that nothing
/// depends on how the kernel or nft writes a rule.
#ifndef LINUX_PACKET_FILTER_TABLE_COMPARISON_H
#define LINUX_PACKET_FILTER_TABLE_COMPARISON_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/packet_filter.h"

/// Makes a table in the network namespace that the process is in, which has none. Returns false if it cannot.
using table_maker = std::function<bool()>;

/// A table and how it should be made. Several tables may point to one maker, which is then called once.
struct table_place {
    std::string vrf_name;
    uint8_t family;  ///< NFPROTO_
    const char* table;
    const table_maker* maker;  ///< null: the table should let everything pass, or not exist
};

/// A child process makes and reads the tables. Stores one finding for each place. ETIMEDOUT after 20 seconds.
platform_status compare_tables(const std::vector<table_place>& places, std::vector<packet_filter_finding>& findings);

/// Has nft carry out commands in this process's network namespace. Returns false if they fail or nft cannot be run.
bool run_nft_here(std::string_view commands);

/// The same in a VRF's namespace, by a child process. Returns 0, EIO if nft failed, or another errno value.
platform_status run_nft_in_vrf(const std::string& vrf_name, std::string_view commands);

#endif
