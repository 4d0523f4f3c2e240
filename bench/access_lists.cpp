/// A list of 10,000 entries from the change notice to the loaded table, on the Linux platform and in a real network
/// namespace, compared with loading the finished file by the same command; and the conversion of entries alone.

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "acl/nft_files.h"
#include "acl/rule_conversion.h"
#include "acl/subscription.h"
#include "config_files/parameter_table.h"
#include "config_files/vrf_node.h"
#include "core/paths.h"
#include "core/text.h"
#include "figures.h"
#include "files.h"
#include "linux/access_lists/acl_line.h"
#include "linux/access_lists/acl_rule.h"
#include "linux/access_lists/acl_service_internal.h"
#include "linux/datastore/datastore_internal.h"
#include "platform/event_manager.h"
#include "scratch_root.h"
#include "vrf/acl_types.h"
#include "vrf/node_registry.h"

namespace {

constexpr uint32_t entry_count = 10000;
constexpr int load_rounds = 15;
constexpr int conversion_rounds = 15;
constexpr char vrf[] = "bench";
constexpr char list_name[] = "ops";

struct family_work {
    uint32_t code;
    uint32_t type;
    const char* name;
    const char* line;  ///< an entry as an operator writes it, with placeholders for two parts of its address
    int (*changed)(const acl_change_notice* notice);
};

constexpr family_work families[] = {
    {ACL_FAMILY_IPV4, acl_ssh_v4, "IPv4", "permit tcp 10.%u.%u.0/24 gt 1023 any eq 22", ssh_ipv4_acl_reg_upd},
    {ACL_FAMILY_IPV6, acl_netconf_v6, "IPv6", "permit tcp 2001:db8:%x:%x::/64 gt 1023 any eq 830",
     ssh_ipv6_acl_reg_upd},
};

std::vector<acl_stored_entry> make_entries(const family_work& family) {
    std::vector<acl_stored_entry> entries;
    for (uint32_t i = 0; i < entry_count; i++) {
        char line[100];
        format_text(line, sizeof line, family.line, i / 250, i % 250);
        acl_rule rule;
        std::string error;
        require(acl_parse_line(family.code, line, rule, error), error.c_str());
        rule.sequence = (i + 1) * 10;
        require(acl_encode_rule(family.code, rule, entries.emplace_back()) == PLATFORM_OK, "cannot encode an entry");
    }
    return entries;
}

void measure_load(const family_work& family) {
    const std::vector<acl_stored_entry> entries = make_entries(family);
    const std::string key = std::string(acl_key_prefix(family.code)) + list_name;
    require(datastore_private_put(key, acl_list_encode(entries)) == PLATFORM_OK, "cannot store the list");
    acl_change_notice notice = {};
    copy_text(notice.acl_name, sizeof notice.acl_name, list_name);
    notice.present = 1;
    require(family.changed(&notice) == 0, "the change was not applied");
    const std::string file = get_nft_file_name(vrf, family.type);
    require(file_lines(file).size() > entry_count, "the file is incomplete");
    const std::string command = std::string("/sbin/ip netns exec vrf-") + vrf + " /usr/sbin/nft -f " + file;
    std::vector<double> processor_times;
    const timed_pair times = measure_in_turns(
        load_rounds,
        [&](int) {
            const std::clock_t before = std::clock();
            require(family.changed(&notice) == 0, "the change was not applied");
            processor_times.push_back(static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC);
        },
        [&](int) { require(system(command.c_str()) == 0, "cannot load the file"); });
    print_row(std::string("10,000-entry ") + family.name + " list: read, convert, write, load", times.own * 1000,
              times.floor * 1000, "ms", goal::at_most, 1.1);
    // The row above varies on a busy machine; the agent's own share is stable.
    print_row("  processor time of the agent alone", best_of(processor_times) * 1000, times.floor * 1000, "ms",
              goal::at_most, 0.1);
}

/// Converts decoded entries to a rule file.
template <typename entry_type>
void measure_conversion(const family_work& family, void (*convert)(const entry_type&, FILE*, uint32_t)) {
    std::vector<entry_type> entries(entry_count);
    const std::vector<acl_stored_entry> stored = make_entries(family);
    for (uint32_t i = 0; i < entry_count; i++) {
        require(record_decode(acl_entry_descriptor(family.code), stored[i].record.data(), stored[i].record.size(),
                              &entries[i], sizeof entries[i]) == PLATFORM_OK,
                "an entry is not decoded");
    }
    std::vector<double> figures;
    for (int round = 0; round < conversion_rounds; round++) {
        FILE* stream = nullptr;
        require(norvossh_acl_init_table(vrf, &stream, family.type) == 0, "cannot create the file");
        figures.push_back(seconds_of([&] {
            for (const entry_type& entry : entries) {
                convert(entry, stream, family.type);
            }
        }));
        fclose(stream);
    }
    print_row(std::string("conversion and writing of one ") + family.name + " entry",
              best_of(figures) * 1e6 / entry_count, 0, "us", goal::at_most, 1);
}

void prepare() {
    scratch_root::enter({.readable = {}, .writable = {PROJECT_BINARY_DIR}});
    write_file(paths::datastore_library, "");
    datastore_configure(nullptr, "/var/lib/bench/datastore.db");
    require(datastore_open() == PLATFORM_OK, "cannot open the datastore");
    event_manager* manager = nullptr;
    require(event_manager_create("bench", &manager) == 0, "cannot create the event loop");
    fill_parameter_tables();
    vrf_node* node = create_vrf_node(vrf);
    require(node != nullptr, "cannot create the VRF");
    copy_text(node->ssh_v4_acl, sizeof node->ssh_v4_acl, list_name);
    copy_text(node->netconf_v6_acl, sizeof node->netconf_v6_acl, list_name);
    require(system("/sbin/ip netns add vrf-bench") == 0, "cannot create the namespace");
    require(create_nft_table(vrf) == 0, "cannot create the tables");
}

}  // namespace

int main() {
    prepare();
    for (const family_work& family : families) {
        measure_load(family);
    }
    measure_conversion<acl_ipv4_entry>(families[0], ssh_convert_ipv4_acl_rule);
    measure_conversion<acl_ipv6_entry>(families[1], ssh_convert_ipv6_acl_rule);
    return 0;
}
