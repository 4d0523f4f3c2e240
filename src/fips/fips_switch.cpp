#include "fips/fips_switch.h"

#include <cerrno>
#include <memory>
#include <new>

#include "config_files/config_writer.h"
#include "config_files/parameter_table.h"
#include "core/agent_state.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/text.h"
#include "fips/fips_mode.h"
#include "fips/fips_verifier.h"
#include "fips/list_filter.h"
#include "fips/trace_points.h"

namespace {

constexpr uint32_t every_event = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET | DATASTORE_EVENT_DELETE;

/// Kept bound because the registrations need it.
datastore_binding* crypto_binding;

// --- Files -----------------------------------------------------------------------------------------------------------

/// Reports a failed write. The debug format takes the error's text, its number and the function; the log message has
/// the error.
int report_failed_write(const char* debug_format, const char* function, const char* log_message) {
    const int error = errno;
    debug_print(debug_format, platform_status_text(error), error, function);
    log_status(ERR_ERRNO, static_cast<platform_status>(error), log_message);
    trace_error(fips_trace_file, {function, log_message, error});
    errno = error;
    return -1;
}

int write_server_host_keys(const char* files, const char* algorithms) {
    const algorithm_entry& file_entry = server_config.algorithms[SERVER_HOST_KEY];
    const algorithm_entry& entry = server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS];
    update_config_files_multiple_restart(event_set_value, file_entry.keyword, files, file_entry.allvrf);
    if (update_config_files_restart(event_set_value, entry.keyword, algorithms, entry.allvrf) != 0) {
        return report_failed_write("Error:=%s(0x%x): %s, failed to update hostkey list in  config file",
                                   "norvossh_set_fips_mode", "Failed to update HostKey List in Config file");
    }
    return 0;
}

/// The client's list follows the server's while FIPS mode is on.
void set_client_host_keys(const char* algorithms) {
    algorithm_entry& entry = client_config.algorithms[CLIENT_HOST_KEY_ALGORITHMS];
    copy_text(entry.fips_text, sizeof entry.fips_text, algorithms);
    entry.second_current = entry.fips_text;
}

void write_client_host_keys() {
    const algorithm_entry& entry = client_config.algorithms[CLIENT_HOST_KEY_ALGORITHMS];
    update_client_config_file(event_set_value, entry.keyword, entry.second_current);
}

// The parameter tables are changed first, because after a failed write they tell a repair what the files should contain.

int mark_servers(const char* host_key_list) {
    line_entry& mark = server_config.parameters[SERVER_FIPS_MODE];
    mark.current = "yes";
    set_client_host_keys(host_key_list);
    if (write_server_host_keys(fips_hostkey_files, host_key_list) != 0) {
        return -1;
    }
    if (update_config_files_restart(event_set_value, mark.keyword, mark.current, mark.allvrf) != 0) {
        return report_failed_write("Error:=%s(0x%x): %s, failed to update NorvoSSHFipsMode  to 'yes' in config file",
                                   "norvossh_set_fips_mode", "Failed to set NorvoSSHFipsMode in Config file");
    }
    write_client_host_keys();
    return 0;
}

int unmark_servers(const char* host_key_list) {
    line_entry& mark = server_config.parameters[SERVER_FIPS_MODE];
    mark.current = nullptr;
    algorithm_entry& files = server_config.algorithms[SERVER_HOST_KEY];
    algorithm_entry& algorithms = server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS];
    files.second_current = files.current;
    algorithms.second_current = algorithms.current;
    set_client_host_keys(client_config.algorithms[CLIENT_HOST_KEY_ALGORITHMS].default_text);
    if (update_config_files_restart(event_delete_value, mark.keyword, nullptr, mark.allvrf) != 0) {
        return report_failed_write("Error:=%s(0x%x): %s, failed to update NorvoSSHFipsMode  to NULL in config file",
                                   "norvossh_set_fips_mode", "Failed to unset NorvoSSHFipsMode in Config file");
    }
    if (write_server_host_keys(files.current, host_key_list) != 0) {
        return -1;
    }
    write_client_host_keys();
    return 0;
}

// --- Lists of both sides ---------------------------------------------------------------------------------------------

/// One kind of list, for server and client.
struct list_pair {
    algorithm_entry* server_entry;
    algorithm_entry* client_entry;
    list_filter_function filter;
    const char* no_memory_text;
    const char* no_list_text;
    const char* failed_text;  ///< failure to write the filtered list
    const char* failed_message;
    const char* restore_failed_text;  ///< failure to write the whole list
    const char* restore_failed_message;
};

const list_pair list_pairs[] = {
    {
        .server_entry = &server_config.algorithms[SERVER_CIPHERS],
        .client_entry = &client_config.algorithms[CLIENT_CIPHERS],
        .filter = get_modified_cipher_list,
        .no_memory_text = "Error:=%s(0x%x)  memory allocation failed for cipher",
        .no_list_text = "%s, Invalid cipher  list",
        .failed_text = "Error:=%s(0x%x): %s, failed to update cipher list in  config file",
        .failed_message = "Failed to update cipher List in Config file",
        .restore_failed_text = "Error:=%s(0x%x): %s, failed to update cipher list in  config file",
        .restore_failed_message = "Failed to update cipher List in Config file",
    },
    {
        .server_entry = &server_config.algorithms[SERVER_KEX_ALGORITHMS],
        .client_entry = &client_config.algorithms[CLIENT_KEX_ALGORITHMS],
        .filter = get_modified_kex_list,
        .no_memory_text = "Error:=%s(0x%x)  memory allocation failed for kex",
        .no_list_text = "%s, Invalid kex list",
        .failed_text = "Error:=%s(0x%x): %s, failed to update kex list in  config file",
        .failed_message = "Failed to update kex List in Config file",
        .restore_failed_text = "Error:=%s(0x%x): %s, failed to update kexAlgo list in  config file",
        .restore_failed_message = "Failed to update kexAlgo List in Config file",
    },
};

/// Start-up and run time differ in their texts, and in the event that writes the lists if FIPS mode is off.
struct occasion {
    const char* function;
    const char* on_text;
    const char* on_failed_message;
    const char* off_text;
    const char* off_failed_message;
    uint32_t off_event;
};

constexpr occasion at_start = {
    .function = "norvossh_fips_register",
    .on_text = "%s, FIPS mode is set",
    .on_failed_message = "Failed to set FIPS mode",
    .off_text = "FIPS mode unset successfully",
    .off_failed_message = "Failed to unset FIPS mode",
    .off_event = event_delete_value,
};

constexpr occasion at_run_time = {
    .function = "norvossh_notify_fips_mode",
    .on_text = "%s, FIPS mode set successfully",
    .on_failed_message = "Failed to set FIPS mode ",
    .off_text = "%s, FIPS mode exited successfully",
    .off_failed_message = "Failed to exit FIPS mode ",
    .off_event = event_set_value,
};

int write_server_list(uint32_t event, const algorithm_entry& entry, const char* list) {
    return update_config_files_restart(event, entry.keyword, list, entry.allvrf);
}

/// Filters the list in force into the entry's second text. Returns it, or null if there is no list.
const char* narrow(const list_pair& pair, algorithm_entry& entry, modified_list& work, const occasion& when) {
    if (pair.filter(entry.current, work.text) != 0) {
        debug_print(pair.no_list_text, when.function);
        trace_error(fips_trace_list, {when.function, entry.keyword});
        return nullptr;
    }
    copy_text(entry.fips_text, sizeof entry.fips_text, work.text);
    entry.second_current = entry.fips_text;
    return entry.fips_text;
}

std::unique_ptr<modified_list> new_list(const char* no_memory_text) {
    std::unique_ptr<modified_list> list(new (std::nothrow) modified_list);
    if (list == nullptr) {
        debug_print(no_memory_text, platform_status_text(ENOMEM), ENOMEM);
        trace_error(fips_trace_memory, {no_memory_text});
    }
    return list;
}

platform_status narrow_lists(const list_pair& pair, const occasion& when) {
    const std::unique_ptr<modified_list> work = new_list(pair.no_memory_text);
    if (work == nullptr) {
        return 1;
    }
    const char* list = narrow(pair, *pair.server_entry, *work, when);
    if (list != nullptr && write_server_list(event_set_value, *pair.server_entry, list) != 0) {
        report_failed_write(pair.failed_text, when.function, pair.failed_message);
    }
    list = narrow(pair, *pair.client_entry, *work, when);
    if (list != nullptr) {
        update_client_config_file(event_set_value, pair.client_entry->keyword, list);
    }
    return PLATFORM_OK;
}

void restore_lists(const list_pair& pair, const occasion& when) {
    algorithm_entry& entry = *pair.server_entry;
    entry.second_current = entry.current;
    if (write_server_list(when.off_event, entry, entry.current) != 0) {
        report_failed_write(pair.restore_failed_text, when.function, pair.restore_failed_message);
    }
    pair.client_entry->second_current = pair.client_entry->current;
    update_client_config_file(when.off_event, pair.client_entry->keyword, pair.client_entry->current);
}

// --- On and off ------------------------------------------------------------------------------------------------------

void mark_with_narrowed_host_keys(modified_list& work, const occasion& when) {
    algorithm_entry& entry = server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS];
    if (get_modified_hostkey_list(entry.current, work.text) != 0) {
        debug_print("%s, Invalid host key list", when.function);
        return;
    }
    if (fips_hostkey_files_from_list(work.text) != 0) {
        debug_print("%s, failed to set hostkeyfile list", when.function);
        return;
    }
    copy_text(entry.fips_text, sizeof entry.fips_text, work.text);
    entry.second_current = entry.fips_text;
    server_config.algorithms[SERVER_HOST_KEY].second_current = fips_hostkey_files;
    if (norvossh_set_fips_mode(1, work.text) != 0) {
        log_errno(when.on_failed_message);
        return;
    }
    debug_print(when.on_text, when.function);
}

/// Goes on with the other lists if one cannot be filtered or written.
platform_status switch_on(const occasion& when) {
    const std::unique_ptr<modified_list> work = new_list("Error:=%s(0x%x)  memory allocation failed");
    if (work == nullptr) {
        return 1;
    }
    trace_event(fips_trace_switched, {"on", when.function});
    mark_with_narrowed_host_keys(*work, when);
    platform_status status = PLATFORM_OK;
    for (const list_pair& pair : list_pairs) {
        const platform_status narrowed = narrow_lists(pair, when);
        status = status == PLATFORM_OK ? narrowed : status;
    }
    return status;
}

void switch_off(const occasion& when) {
    trace_event(fips_trace_switched, {"off", when.function});
    algorithm_entry& host_keys = server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS];
    host_keys.second_current = host_keys.current;
    if (norvossh_set_fips_mode(0, host_keys.current) != 0) {
        log_errno(when.off_failed_message);
    } else {
        debug_print(when.off_text, when.function);
    }
    for (const list_pair& pair : list_pairs) {
        restore_lists(pair, when);
    }
}

platform_status fail_registration(platform_status status, const char* message) {
    log_status(ERR_ERRNO, status, message);
    trace_error(fips_trace_registration, {message, status});
    return status;
}

platform_status apply_stored_switch() {
    const platform_status status = datastore_item_get(crypto_binding, fips_mode_item, nullptr, 0, nullptr);
    if (status == PLATFORM_OK) {
        return switch_on(at_start);
    }
    if (status == DATASTORE_NO_SUCH_ITEM) {
        switch_off(at_start);
        return PLATFORM_OK;
    }
    return fail_registration(status, "Failed to get item from datastore");
}

platform_status register_for_changes() {
    platform_status status =
        datastore_register_verification(crypto_binding, fips_mode_item, every_event, verify_fips_mode, apply_fips_mode,
                                        agent_handles.event_manager, nullptr);
    if (status != PLATFORM_OK) {
        return fail_registration(status, "datastore verification registeration failed for fips mode");
    }
    status = datastore_register_notification(crypto_binding, fips_mode_item, every_event, norvossh_notify_fips_mode,
                                             agent_handles.event_manager, nullptr);
    if (status != PLATFORM_OK) {
        return fail_registration(status, "datastore notification registeration failed for fips mode");
    }
    return PLATFORM_OK;
}

}  // namespace

int norvossh_set_fips_mode(uint32_t on, const char* host_key_list) {
    return on != 0 ? mark_servers(host_key_list) : unmark_servers(host_key_list);
}

void norvossh_notify_fips_mode(const datastore_notification* notification, void*) {
    debug_print("%s, Entered", __func__);
    if ((notification->event & DATASTORE_EVENT_CREATE) != 0) {
        switch_on(at_run_time);
    } else if ((notification->event & DATASTORE_EVENT_DELETE) != 0) {
        switch_off(at_run_time);
    } else if ((notification->event & DATASTORE_EVENT_SET) != 0) {
        debug_print("FIPS mode is already set");
    }
}

platform_status norvossh_fips_register() {
    debug_print("%s, Entered", __func__);
    platform_status status = bind_datastore(paths::crypto_tree, &crypto_binding);
    if (status != PLATFORM_OK) {
        log_bind_failure(status, "CEPKI FIPS CFG");
        return status;
    }
    status = apply_stored_switch();
    if (status == PLATFORM_OK) {
        status = register_for_changes();
    }
    if (status != PLATFORM_OK) {
        datastore_unbind(crypto_binding);
        crypto_binding = nullptr;
    }
    return status;
}
