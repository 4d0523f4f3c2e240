#include "appliers/host_key_algorithms.h"

#include <cstring>

#include "appliers/name_tuple.h"
#include "appliers/trace_points.h"
#include "config_files/algorithm_names.h"
#include "config_files/config_writer.h"
#include "config_files/name_list.h"
#include "config_files/parameter_table.h"
#include "core/debug.h"
#include "core/trace.h"
#include "fips/fips_mode.h"
#include "fips/offered_list.h"
#include "platform/algorithms.h"

namespace {

constexpr char function[] = "sshd_apply_hostkeyalgo";

// The entries hold the lists.
constexpr auto& server_hostkey_list = server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS].text;
constexpr auto& server_hostkey_files = server_config.algorithms[SERVER_HOST_KEY].text;

bool is_same_file(const char* file, const char* other) {
    return std::strcmp(file, other) == 0;
}

bool is_selected(const int32_t* flags, const algorithm_row& row) {
    const bool with_all_rsa = flags[all_rsa_setting] != 0 && is_same_file(row.key_file, rsa_key_file);
    return row.setting >= 0 && (flags[row.setting] != 0 || with_all_rsa);
}

void compose_lists(const int32_t* flags) {
    server_hostkey_list[0] = '\0';
    server_hostkey_files[0] = '\0';
    const char* last_file = "";  // algorithms of one key are adjacent
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind != algorithm_kind::key || !is_selected(flags, row)) {
            continue;
        }
        append_name(server_hostkey_list, algorithm_list_size, row.name);
        if (row.key_file[0] != '\0' && !is_same_file(row.key_file, last_file)) {
            append_name(server_hostkey_files, algorithm_list_size, row.key_file);
            last_file = row.key_file;
        }
    }
}

void put_current(const char* files, const char* algorithms) {
    algorithm_entry& file_entry = server_config.algorithms[SERVER_HOST_KEY];
    algorithm_entry& algorithm_list = server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS];
    file_entry.current = file_entry.second_current = files;
    algorithm_list.current = algorithm_list.second_current = algorithms;
}

void write_lines(const char* files, const char* algorithms) {
    const algorithm_entry& file_entry = server_config.algorithms[SERVER_HOST_KEY];
    const algorithm_entry& algorithm_list = server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS];
    update_config_files_multiple_restart(event_set_value, file_entry.keyword, files, file_entry.allvrf);
    update_config_files_restart(event_set_value, algorithm_list.keyword, algorithms, algorithm_list.allvrf);
}

platform_status fail_question() {
    debug_print("(%s) Failed to check fips mode  in hoskeyalgo applier", function);
    trace_error(appliers_trace_fips_question, {function});
    return 1;
}

platform_status set_host_keys(const datastore_change& change) {
    int32_t flags[host_key_flag_count] = {};
    if (unpack_flags(change, host_key_flag_count, "HOSTKEY-ALGO-APPLY", flags) != PLATFORM_OK) {
        return PLATFORM_OK;
    }
    compose_lists(flags);
    put_current(server_hostkey_files, server_hostkey_list);
    if (choose_offered_host_keys() != 0) {
        return fail_question();
    }
    const char* files = server_config.algorithms[SERVER_HOST_KEY].second_current;
    const char* algorithms = server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS].second_current;
    trace_event(appliers_trace_host_key, {change.event, algorithms, files});
    write_lines(files, algorithms);
    return PLATFORM_OK;
}

platform_status reset_host_keys(const datastore_change& change) {
    debug_print("(%s) config removed", function);
    put_current(server_config.algorithms[SERVER_HOST_KEY].default_text,
                server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS].default_text);
    const int32_t fips_mode = fips_mode_get();
    if (fips_mode < 0) {
        return fail_question();
    }
    if (fips_mode == 1) {
        server_config.algorithms[SERVER_HOST_KEY].second_current = fips_host_keys;
        server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS].second_current = fips_host_key_algorithms;
    }
    trace_event(appliers_trace_host_key,
                {change.event, server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS].second_current});
    write_lines(server_config.algorithms[SERVER_HOST_KEY].second_current,
                server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS].second_current);
    return PLATFORM_OK;
}

}  // namespace

platform_status sshd_apply_hostkeyalgo(const datastore_change* change, const datastore_path_components*) {
    debug_print("Event:=%d, Config:=ssh server algo hostkey", static_cast<int>(change->event));
    if ((change->event & DATASTORE_EVENT_CREATE_OR_SET) != 0 && change->value != nullptr) {
        return set_host_keys(*change);
    }
    return (change->event & DATASTORE_EVENT_DELETE) != 0 ? reset_host_keys(*change) : PLATFORM_OK;
}
