/// nftables rule files: one per VRF and kind of access list, written whole and loaded inside the VRF's namespace.
///
/// Every loaded table accepts established connections, applies the list's rules in order and drops every other new
/// connection to the service's port; everything else is accepted by the chain's policy.
#ifndef ACL_NFT_FILES_H
#define ACL_NFT_FILES_H

#include <cstdint>
#include <cstdio>

/// The rule file of a VRF and an acl_type. Null for a type of 5 or more. The name is in a static buffer of 100 bytes
/// that the next call overwrites; a longer name is cut.
const char* get_nft_file_name(const char* vrf_name, uint32_t type);

/// Creates the folders and the file, empty, and opens it. Returns 0 and stores the stream, which the caller closes, or
/// -1.
int create_nft_file(const char* vrf_name, FILE** stream, uint32_t type);

/// Creates the file of one table (types 0 to 3) and writes its header. Returns 0 or -1. For any other type, creates the
/// file and leaves it open in `*stream`, but returns -1.
int norvossh_acl_init_table(const char* vrf_name, FILE** stream, uint32_t type);

/// Writes an empty table of a type (0 to 3), which the commands of its rule file require.
void write_table_declaration(uint32_t type, FILE* stream);

/// Writes the header of a table (types 0 to 3), which precedes the rules of the entries.
void write_table_header(uint32_t type, FILE* stream);

/// Writes the closing drop rule of the table's port (types 0 to 3) and the braces, and flushes; does not close.
void ssh_nft_fp_close(uint32_t type, FILE* stream);

/// Reports a file that could not be written completely, with errno. It must not be loaded: nft accepts an empty file of
/// flushes without complaint, and rules lost to a temporary write error would be missing among the others. Returns -1.
int report_unwritten_file();

/// Loads the file of a type in the VRF's namespace. Returns 0 or -1. A failed load counts as done if errno is 0.
int ssh_apply_acl(const char* vrf_name, uint32_t type);

/// Declares the VRF's four tables, so that later files may begin by flushing one. Returns 0 or -1.
int create_nft_table(const char* vrf_name);

/// The name of a type's table (types 0 to 3).
const char* nft_table_name(uint32_t type);

/// Removes the table of a type (0 to 3) with everything that anybody has put into it. Returns 0 or -1.
int remove_nft_table(const char* vrf_name, uint32_t type);

/// Removes the rules of one table (types 0 to 3) or of all (4); the tables stay. Returns 0 or -1.
int ssh_flush_nft_table(const char* vrf_name, uint32_t type);

#endif
