// Everything that the agent and the operator's tool derive from the list of algorithms, in one golden file.
#include <sstream>

#include "../agent_test.h"
#include "config_files/algorithm_names.h"
#include "fips/list_filter.h"
#include "oper/session_mappings.h"
#include "platform/algorithms.h"
#include "ssh_cfg_ctl/value_names.h"

namespace {

struct kind_row {
    algorithm_kind kind;
    const char* title;
    const char* enumeration;
    int32_t (*number_of)(std::string_view name);
    list_filter_function filter;  ///< null: FIPS mode does not filter this list
};

constexpr kind_row kinds[] = {
    {algorithm_kind::kex, "key exchange", "kex_name_en", kex_name_of, get_modified_kex_list},
    {algorithm_kind::cipher, "cipher", "cipher_type_en", cipher_type_of, get_modified_cipher_list},
    {algorithm_kind::mac, "MAC", "mac_type_en", mac_type_of, nullptr},
    {algorithm_kind::key, "host key", "hostkey_type_en", hostkey_type_of, get_modified_hostkey_list},
};

void dump_lists(std::ostream& out) {
    const struct {
        const char* name;
        const char* list;
    } lists[] = {
        {"default_kex_list", default_kex_list},
        {"default_cipher_list", default_cipher_list},
        {"default_mac_list", default_mac_list},
        {"default_server_host_key_algorithms", default_server_host_key_algorithms},
        {"default_client_host_key_algorithms", default_client_host_key_algorithms},
        {"default_host_keys", default_host_keys},
        {"fips_kex_list", fips_kex_list},
        {"fips_cipher_list", fips_cipher_list},
        {"fips_host_key_algorithms", fips_host_key_algorithms},
        {"fips_host_keys", fips_host_keys},
    };
    for (const auto& row : lists) {
        out << row.name << "\n    " << row.list << '\n';
    }
}

void dump_settings(std::ostream& out, const kind_row& row) {
    out << "\nsettings: " << row.title << '\n';
    for (size_t i = 0; i < algorithm_settings(row.kind); i++) {
        const algorithm_row* algorithm = configurable_algorithm(row.kind, i);
        out << "    " << i << ' ' << (algorithm != nullptr ? algorithm->name : "all RSA algorithms") << '\n';
    }
}

/// The names as the tool prints them; the agent must give each the same number.
void dump_numbers(std::ostream& out, const char* enumeration, int32_t (*number_of)(std::string_view)) {
    out << "\nnumbers: " << enumeration << '\n';
    for (int32_t number = 0; ctl_value_name(enumeration, number) != nullptr; number++) {
        const char* name = ctl_value_name(enumeration, number);
        out << "    " << number << ' ' << name << '\n';
        EXPECT_EQ(number_of(name), number) << name;
    }
}

void dump_filter(std::ostream& out, const kind_row& row) {
    out << "\nremoved in FIPS mode: " << row.title << '\n';
    for (const algorithm_row& algorithm : algorithm_rows) {
        modified_list left = {};
        if (algorithm.kind == row.kind && algorithm.setting >= 0) {
            EXPECT_EQ(row.filter(algorithm.name, left.text), 0);
            out << (left.text[0] == '\0' ? std::string("    ") + algorithm.name + '\n' : "");
        }
    }
}

void dump_host_key_files(std::ostream& out) {
    out << "\nhost-key files in FIPS mode\n";
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == algorithm_kind::key && fips_hostkey_files_from_list(row.name) == 0) {
            out << "    " << row.name << ' ' << fips_hostkey_files << '\n';
        }
    }
}

using algorithm_tables_test = agent_test;

TEST_F(algorithm_tables_test, are_derived_from_the_list_of_algorithms) {
    std::ostringstream out;
    dump_lists(out);
    for (const kind_row& row : kinds) {
        dump_settings(out, row);
        dump_numbers(out, row.enumeration, row.number_of);
        if (row.filter != nullptr) {
            dump_filter(out, row);
        }
    }
    dump_host_key_files(out);
    dump_numbers(out, "authen_type_en", authen_type_of);
    expect_golden("appliers/golden/algorithm_tables", out.str());
}

}  // namespace
