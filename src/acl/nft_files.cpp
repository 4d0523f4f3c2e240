#include "acl/nft_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include "acl/acl_family.h"
#include "acl/load_failure.h"
#include "acl/nft_command.h"
#include "acl/trace_points.h"
#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/text.h"
#include "vrf/acl_types.h"

namespace {

/// The keywords of an address family.
struct nft_family {
    const char* flush_format;
    const char* table_format;
    const char* drop_format;
    const char* delete_format;
};

constexpr nft_family ipv4_family = {
    "flush table ip %s\n\n",
    "table ip %s {\n",
    "        ip saddr & 0.0.0.0 == 0.0.0.0 ip daddr & 0.0.0.0 == 0.0.0.0  tcp dport %d drop\n",
    "delete table ip %s\n",
};
constexpr nft_family ipv6_family = {
    "flush table ip6 %s\n\n",
    "table ip6 %s {\n",
    "        ip6 saddr & :: == :: ip6 daddr & :: == :: tcp dport %d drop\n",
    "delete table ip6 %s\n",
};

struct nft_table {
    acl_type type;  ///< the row's position
    const char* name;
    const nft_family* family;  ///< null for the row that means all tables
    uint32_t port;
};

constexpr nft_table tables[] = {
    {acl_ssh_v4, "norvossh_v4acl", &ipv4_family, ssh_port},
    {acl_netconf_v4, "netconf_v4acl", &ipv4_family, netconf_port},
    {acl_ssh_v6, "norvossh_v6acl", &ipv6_family, ssh_port},
    {acl_netconf_v6, "netconf_v6acl", &ipv6_family, netconf_port},
    {acl_all, "norvossh_acl_all", nullptr, 0},
};

constexpr bool tables_are_indexed_by_type() {
    for (uint32_t type = 0; type < acl_type_count; ++type) {
        if (tables[type].type != type) {
            return false;
        }
    }
    return true;
}

static_assert(std::size(tables) == acl_type_count && tables_are_indexed_by_type());

/// The order in which all tables are declared and flushed.
constexpr acl_type all_tables[] = {acl_ssh_v4, acl_ssh_v6, acl_netconf_v4, acl_netconf_v6};

constexpr size_t file_name_size = 100;
constexpr size_t namespace_name_size = 50;
constexpr size_t command_size = 200;
constexpr size_t nft_message_size = 1024;
constexpr mode_t directory_mode = 0755;
constexpr mode_t file_mode = 0744;
constexpr size_t stream_buffer_size = 65536;

struct nft_directory {
    const char* path;
    const char* failure;
};

constexpr nft_directory directories[] = {
    {paths::nft_directory_0, "Failed to create NORVOSSH_NFT_DIR_0"},
    {paths::nft_directory_1, "Failed to create NORVOSSH_NFT_DIR_1"},
    {paths::nft_directory_2, "Failed to create NORVOSSH_NFT_DIR_2"},
};

void report_invalid_type(const char* routine) {
    debug_print("%s: Invalid ACL type", routine);
}

bool make_directories() {
    for (const nft_directory& directory : directories) {
        if (mkdir(directory.path, directory_mode) != 0 && errno != EEXIST) {
            log_errno(directory.failure);
            note_load_failure("%s could not be made: %s", directory.path, strerror(errno));
            trace_error(acl_trace_directory, {directory.path, errno});
            return false;
        }
    }
    return true;
}

int stream_failure(int descriptor, const char* debug_format, const char* routine, const char* text) {
    debug_print(debug_format, routine, strerror(errno), static_cast<unsigned>(errno));
    log_errno(text);
    trace_error(acl_trace_file, {text, errno});
    note_load_failure("the rule file could not be made: %s", strerror(errno));
    if (descriptor >= 0) {
        close(descriptor);
    }
    return -1;
}

/// The list that a VRF names for a type; empty if there is none.
const char* acl_name_of(const char* vrf_name, uint32_t type) {
    const vrf_node* node = type < acl_all ? find_vrf_node(vrf_name) : nullptr;
    return node != nullptr ? acl_name_of(type >= acl_ssh_v6 ? ipv6_acl_family : ipv4_acl_family, *node, type) : "";
}

/// Reports which list was not loaded, where and why.
void report_failed_load(const char* vrf_name, uint32_t type, char* message) {
    const char* acl_name = acl_name_of(vrf_name, type);
    char list[acl_name_size + 32];
    format_text(list, sizeof(list), acl_name[0] != '\0' ? "access list %s" : "table %s",
                acl_name[0] != '\0' ? acl_name : tables[type].name);
    char vrf[namespace_name_size + 32];
    format_text(vrf, sizeof(vrf), "was not loaded in VRF %s:", vrf_name);
    shorten_nft_message(message);
    const char* reason = message[0] != '\0' ? message : "the command gave no reason";
    log_details(list, vrf, reason);
    note_load_failure("%s was not loaded: %s", list, reason);
}

/// Closes a rule file. Returns whether everything has been written.
bool close_written(FILE* stream) {
    const bool had_error = ferror(stream) != 0;
    return fclose(stream) == 0 && !had_error;
}

void write_flush(FILE* stream, const nft_table& table) {
    fprintf(stream, table.family->flush_format, table.name);
}

}  // namespace

int report_unwritten_file() {
    log_errno("Failed to apply nft rules");
    trace_error(acl_trace_file, {"Failed to apply nft rules", errno});
    note_load_failure("the rule file could not be written: %s", strerror(errno));
    return -1;
}

const char* get_nft_file_name(const char* vrf_name, uint32_t type) {
    debug_print("Entered %s", __func__);
    static char name[file_name_size];
    if (type >= acl_type_count) {
        report_invalid_type(__func__);
        return nullptr;
    }
    format_text(name, sizeof(name), paths::nft_file_format, "vrf-", vrf_name, tables[type].name);
    return name;
}

int create_nft_file(const char* vrf_name, FILE** stream, uint32_t type) {
    debug_print("Entered %s", __func__);
    if (!make_directories()) {
        return -1;
    }
    const char* name = get_nft_file_name(vrf_name, type);
    if (name == nullptr) {
        return -1;
    }
    // Creating the folders has set errno to "already exists", because /tmp always exists; a successful creat() leaves
    // it unchanged. Any other value means that something went wrong in between.
    const int descriptor = creat(name, file_mode);
    if (descriptor < 0 || errno != EEXIST) {
        return stream_failure(descriptor, "%s - Failed to create NORVOSSH_NFT file, Error:=%s(0x%x)", __func__,
                              "Failed to create NORVOSSH_NFT file");
    }
    FILE* opened = fdopen(descriptor, "w");
    if (opened == nullptr) {
        return stream_failure(descriptor, "%s - Failed to open NORVOSSH_NFT file, Error:=%s(0x%x)", __func__,
                              "Failed to open NORVOSSH_NFT file");
    }
    setvbuf(opened, nullptr, _IOFBF, stream_buffer_size);
    *stream = opened;
    return 0;
}

int norvossh_acl_init_table(const char* vrf_name, FILE** stream, uint32_t type) {
    debug_print("Entered %s", __func__);
    if (create_nft_file(vrf_name, stream, type) != 0) {
        return -1;
    }
    if (type >= acl_all) {
        report_invalid_type(__func__);
        return -1;
    }
    write_table_header(type, *stream);
    return 0;
}

void write_table_declaration(uint32_t type, FILE* stream) {
    fprintf(stream, tables[type].family->table_format, tables[type].name);
    fputs("}\n", stream);
}

void write_table_header(uint32_t type, FILE* stream) {
    const nft_table& table = tables[type];
    write_flush(stream, table);
    fprintf(stream, table.family->table_format, table.name);
    fputs("        chain input {\n", stream);
    fputs("                type filter hook input priority 0; policy accept;\n", stream);
    fputs("               ct state established accept\n", stream);
}

void ssh_nft_fp_close(uint32_t type, FILE* stream) {
    debug_print("Entered %s", __func__);
    if (type < acl_all) {
        fprintf(stream, tables[type].family->drop_format, tables[type].port);
    }
    fputs("        }\n", stream);
    fputs("}\n", stream);
    fflush(stream);
}

int ssh_apply_acl(const char* vrf_name, uint32_t type) {
    debug_print("Entered %s", __func__);
    const char* name = get_nft_file_name(vrf_name, type);
    if (name == nullptr) {
        return -1;
    }
    char namespace_name[namespace_name_size];
    format_text(namespace_name, sizeof(namespace_name), "vrf-%s", vrf_name);
    char command[command_size];
    format_text(command, sizeof(command), "/sbin/ip netns exec %s /usr/sbin/nft -f %s", namespace_name, name);
    char message[nft_message_size];
    if (run_nft_command(command, message, sizeof(message)) == 0 || errno == 0) {
        return 0;
    }
    debug_print("Failed to apply nft rules = (%d)%s", errno, strerror(errno));
    log_errno("Failed to apply nft rules");
    report_failed_load(vrf_name, type, message);
    trace_error(acl_trace_load, {vrf_name, type, errno});
    return -1;
}

int create_nft_table(const char* vrf_name) {
    debug_print("Entered %s", __func__);
    if (vrf_name == nullptr) {
        debug_print("%s: vrf name is NULL", __func__);
        return -1;
    }
    FILE* stream = nullptr;
    if (create_nft_file(vrf_name, &stream, acl_all) != 0) {
        return -1;
    }
    fprintf(stream, "table ip %s {\n}\ntable ip6 %s {\n}\ntable ip %s {\n}\ntable ip6 %s {\n}\n",
            tables[acl_ssh_v4].name, tables[acl_ssh_v6].name, tables[acl_netconf_v4].name, tables[acl_netconf_v6].name);
    const bool written = ferror(stream) == 0 && fflush(stream) == 0;
    const int result = written ? ssh_apply_acl(vrf_name, acl_all) : report_unwritten_file();
    fclose(stream);
    return result;
}

const char* nft_table_name(uint32_t type) {
    return tables[type].name;
}

int remove_nft_table(const char* vrf_name, uint32_t type) {
    FILE* stream = nullptr;
    if (create_nft_file(vrf_name, &stream, type) != 0) {
        return -1;
    }
    // A table that does not exist cannot be deleted.
    write_table_declaration(type, stream);
    fprintf(stream, tables[type].family->delete_format, tables[type].name);
    return close_written(stream) ? ssh_apply_acl(vrf_name, type) : report_unwritten_file();
}

int ssh_flush_nft_table(const char* vrf_name, uint32_t type) {
    debug_print("Entered %s", __func__);
    if (type >= acl_type_count) {
        report_invalid_type(__func__);
        return -1;
    }
    FILE* stream = nullptr;
    if (create_nft_file(vrf_name, &stream, type) != 0) {
        debug_print("%s: Failed to create NFT file", __func__);
        return -1;
    }
    if (type == acl_all) {
        for (const acl_type each : all_tables) {
            write_flush(stream, tables[each]);
        }
    } else {
        write_flush(stream, tables[type]);
    }
    if ((close_written(stream) ? ssh_apply_acl(vrf_name, type) : report_unwritten_file()) != 0) {
        debug_print("%s: Failed to apply nft rules", __func__);
        return -1;
    }
    return 0;
}
