/// What a table of the packet filter contains, in a form in which equal tables are equal.
#ifndef LINUX_PACKET_FILTER_TABLE_DUMP_H
#define LINUX_PACKET_FILTER_TABLE_DUMP_H

#include <cstdint>
#include <string>

struct table_dump {
    bool exists = false;
    bool lets_pass = true;  ///< there is no rule, and no chain that drops by its policy
    uint32_t rules = 0;
    /// Flags, comment, chains, sets and rules as the kernel encodes them, without handles, use counts and counters. Not
    /// text.
    std::string contents;

    bool operator==(const table_dump& other) const { return exists == other.exists && contents == other.contents; }
};

/// Reads a table of a family (NFPROTO_) in the network namespace that the process is in. Returns 0 or an errno value. May
/// throw std::bad_alloc.
int table_dump_read(uint8_t family, const char* table, table_dump& dump);

#endif
