#include "appliers/host_key_algorithms.h"

#include "appliers/name_tuple.h"
#include "appliers/trace_points.h"
#include "config_files/algorithm_names.h"
#include "config_files/config_writer.h"
#include "config_files/name_list.h"
#include "config_files/parameter_table.h"
#include "core/debug.h"
#include "core/trace.h"
#include "fips/fips_mode.h"

namespace {

constexpr uint32_t create_or_set = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET;
constexpr char function[] = "sshd_apply_hostkeyalgo";

// The lists stand in their entries.
constexpr auto& server_hostkey_list = server.algorithms[SERVER_HOST_KEY_ALGORITHMS].text;
constexpr auto& server_hostkey_files = server.algorithms[SERVER_HOST_KEY].text;

struct host_key_row {
    host_key_flag flag;
    const char* algorithm;
    const char* file;  ///< null: a file of its own is not used
};

// In the order in which they are offered. The certificate's key comes from its trustpoint; the RSA rows share one file.
constexpr host_key_row rows_before_rsa[] = {
    {HOST_KEY_X509V3_RSA, "x509v3-ssh-rsa", nullptr},
    {HOST_KEY_NISTP521, "ecdsa-sha2-nistp521", "/pkg/ecdsa-sha2-nistp521"},
    {HOST_KEY_NISTP384, "ecdsa-sha2-nistp384", "/pkg/ecdsa-sha2-nistp384"},
    {HOST_KEY_NISTP256, "ecdsa-sha2-nistp256", "/pkg/ecdsa-sha2-nistp256"},
    {HOST_KEY_ED25519, "ssh-ed25519", "/pkg/ed25519"},
};

constexpr host_key_row rsa_rows[] = {
    {HOST_KEY_RSA_SHA2_512, "rsa-sha2-512", nullptr},
    {HOST_KEY_RSA_SHA2_256, "rsa-sha2-256", nullptr},
    {HOST_KEY_SSH_RSA, "ssh-rsa", nullptr},
};

constexpr host_key_row dss_row = {HOST_KEY_DSS, "ssh-dss", "/pkg/dsa"};

void append_algorithm(const host_key_row& row) {
    append_name(server_hostkey_list, algorithm_list_size, row.algorithm);
    if (row.file != nullptr) {
        append_name(server_hostkey_files, algorithm_list_size, row.file);
    }
}

void append_rsa(const int32_t* flags) {
    bool any = false;
    for (const host_key_row& row : rsa_rows) {
        if (flags[HOST_KEY_ALL_RSA] != 0 || flags[row.flag] != 0) {
            append_algorithm(row);
            any = true;
        }
    }
    if (any) {
        append_name(server_hostkey_files, algorithm_list_size, "/pkg/rsa");
    }
}

void compose_lists(const int32_t* flags) {
    server_hostkey_list[0] = '\0';
    server_hostkey_files[0] = '\0';
    for (const host_key_row& row : rows_before_rsa) {
        if (flags[row.flag] != 0) {
            append_algorithm(row);
        }
    }
    append_rsa(flags);
    if (flags[dss_row.flag] != 0) {
        append_algorithm(dss_row);
    }
}

void put_current(const char* files, const char* algorithms) {
    algorithm_entry& file_entry = server.algorithms[SERVER_HOST_KEY];
    algorithm_entry& algorithm_list = server.algorithms[SERVER_HOST_KEY_ALGORITHMS];
    file_entry.current = file_entry.second_current = files;
    algorithm_list.current = algorithm_list.second_current = algorithms;
}

void write_lines(const char* files, const char* algorithms) {
    const algorithm_entry& file_entry = server.algorithms[SERVER_HOST_KEY];
    const algorithm_entry& algorithm_list = server.algorithms[SERVER_HOST_KEY_ALGORITHMS];
    update_config_files_multiple_restart(event_set_value, file_entry.keyword, files, file_entry.allvrf);
    update_config_files_restart(event_set_value, algorithm_list.keyword, algorithms, algorithm_list.allvrf);
}

platform_status set_host_keys(const datastore_change& change) {
    int32_t flags[host_key_flag_count] = {};
    if (unpack_flags(change, host_key_flag_count, "HOSTKEY-ALGO-APPLY", flags) != PLATFORM_OK) {
        return PLATFORM_OK;
    }
    compose_lists(flags);
    put_current(server_hostkey_files, server_hostkey_list);
    trace_event(appliers_trace_host_key, {change.event, server_hostkey_list, server_hostkey_files});
    write_lines(server_hostkey_files, server_hostkey_list);
    return PLATFORM_OK;
}

platform_status reset_host_keys(const datastore_change& change) {
    debug_print("(%s) config removed", function);
    put_current(server.algorithms[SERVER_HOST_KEY].default_text,
                server.algorithms[SERVER_HOST_KEY_ALGORITHMS].default_text);
    const int32_t fips_mode = fips_mode_get();
    if (fips_mode < 0) {
        debug_print("(%s) Failed to check fips mode  in hoskeyalgo applier", function);
        trace_error(appliers_trace_fips_question, {function});
        return 1;
    }
    if (fips_mode == 1) {
        server.algorithms[SERVER_HOST_KEY].second_current = fips_host_keys;
        server.algorithms[SERVER_HOST_KEY_ALGORITHMS].second_current = fips_host_key_algorithms;
    }
    trace_event(appliers_trace_host_key, {change.event, server.algorithms[SERVER_HOST_KEY_ALGORITHMS].second_current});
    write_lines(server.algorithms[SERVER_HOST_KEY].second_current,
                server.algorithms[SERVER_HOST_KEY_ALGORITHMS].second_current);
    return PLATFORM_OK;
}

}  // namespace

platform_status sshd_apply_hostkeyalgo(const datastore_change* change, const datastore_path_components*) {
    debug_print("Event:=%d, Config:=ssh server algo hostkey", static_cast<int>(change->event));
    if ((change->event & create_or_set) != 0 && change->value != nullptr) {
        return set_host_keys(*change);
    }
    return (change->event & DATASTORE_EVENT_DELETE) != 0 ? reset_host_keys(*change) : PLATFORM_OK;
}
