#include "core/start_up.h"

#include <sys/stat.h>

#include <cerrno>
#include <iterator>

#include "acl/failed_lists.h"
#include "acl/list_verifier.h"
#include "acl/nft_files.h"
#include "acl/subscription.h"
#include "config_files/default_contents.h"
#include "config_files/parameter_table.h"
#include "config_files/restart_record.h"
#include "config_files/vrf_node.h"
#include "core/agent_state.h"
#include "core/debug.h"
#include "core/debug_level.h"
#include "core/event_loop.h"
#include "core/item_table.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/shell_command.h"
#include "core/trace_points.h"
#include "core/trace_table.h"
#include "core/upcalls.h"
#include "fips/fips_switch.h"
#include "host/banners.h"
#include "host/file_system_list.h"
#include "host/pam_file.h"
#include "host/shelf_link.h"
#include "oper/providers.h"
#include "oper/telemetry.h"
#include "platform/enforcement.h"
#include "platform/mpp.h"
#include "platform/namespace_message.h"
#include "platform/process_manager.h"
#include "reconcile/reconciliation.h"
#include "vrf/namespace_handler.h"
#include "vrf/node_registry.h"
#include "vrf/server_changes.h"
#include "vrf/server_lifecycle.h"
#include "vrf/service_unit.h"

namespace {

constexpr mode_t empty_directory_mode = 0755;
constexpr uint32_t every_event = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET | DATASTORE_EVENT_DELETE;
constexpr uint32_t scan_cookie = 0xFEDCBA98;
constexpr char whole_subtree[] = "";

// --- Datastore bindings and registrations ----------------------------------------------------------------------------

/// The bindings, as bits of a set.
enum binding : uint32_t {
    binding_server = 1,
    binding_client = 2,
    binding_backup = 4,
    binding_banner = 8,
    binding_aaa_banner = 16,
};

datastore_binding** handle_of(uint32_t bit) {
    switch (bit) {
        case binding_server:
            return &agent_handles.server_binding;
        case binding_client:
            return &agent_handles.client_binding;
        case binding_backup:
            return &agent_handles.backup_binding;
        case binding_banner:
            return &agent_handles.banner_binding;
        default:
            return &agent_handles.aaa_banner_binding;
    }
}

struct datastore_step;

/// What a step does with its binding, and how its failure is logged.
struct datastore_operation {
    platform_status (*run)(const datastore_step& step);
    void (*report)(platform_status status, const char* text);
};

struct datastore_step {
    const datastore_operation& operation;
    binding target;
    const char* path;  ///< to bind to, or the pattern of items to register for
    const char* text;  ///< location or message to log on failure
    uint32_t unbind;   ///< bindings released on failure
    start_up_status failure;
};

platform_status bind_tree(const datastore_step& step) {
    return bind_datastore(step.path, handle_of(step.target));
}

platform_status register_verification(const datastore_step& step) {
    return datastore_register_verification(*handle_of(step.target), step.path, every_event, verify_configuration,
                                           apply_configuration, agent_handles.event_manager, nullptr);
}

platform_status register_banner_notification(const datastore_step& step) {
    return datastore_register_notification(*handle_of(step.target), step.path, every_event, banner_config_handler,
                                           agent_handles.event_manager, nullptr);
}

platform_status register_aaa_banner_notification(const datastore_step& step) {
    return datastore_register_notification(*handle_of(step.target), step.path, every_event, aaa_banner_config_handler,
                                           agent_handles.event_manager, nullptr);
}

void log_failure(platform_status status, const char* text) {
    log_status(ERR_ERRNO, status, text);
}

constexpr datastore_operation bind_to{bind_tree, log_bind_failure};
constexpr datastore_operation verify{register_verification, log_failure};
constexpr datastore_operation notify_banner{register_banner_notification, log_failure};
constexpr datastore_operation notify_aaa_banner{register_aaa_banner_notification, log_failure};

/// In order of execution. Anything that a failed step does not release ends with the process.
constexpr datastore_step datastore_steps[] = {
    {bind_to, binding_server, paths::server_tree, "SSH CFG BASE SERVER", 0, START_UP_SERVER_BINDING},
    {bind_to, binding_client, paths::client_tree, "SSH CFG BASE CLIENT", binding_server, START_UP_CLIENT_BINDING},
    {bind_to, binding_backup, paths::backup_tree, "SSH CFG BASE BACKUP SERVER", binding_server | binding_client,
     START_UP_BACKUP_BINDING},
    {verify, binding_server, whole_subtree, "Failed to register for server config verification",
     binding_server | binding_client, START_UP_SERVER_VERIFICATION},
    {verify, binding_client, whole_subtree, "Failed to register for client config verification",
     binding_server | binding_client, START_UP_CLIENT_VERIFICATION},
    {verify, binding_backup, whole_subtree, "Failed to register for backup config verification",
     binding_server | binding_client | binding_backup, START_UP_BACKUP_VERIFICATION},
    {bind_to, binding_banner, paths::banner_tree, "SSH BANNER", binding_server | binding_client,
     START_UP_BANNER_BINDING},
    {notify_banner, binding_banner, "0x2", "Failed to register for banner config notification",
     binding_server | binding_client | binding_banner, START_UP_BANNER_NOTIFICATION},
    {notify_banner, binding_banner, "0x3", "Failed to register for login banner config notification",
     binding_server | binding_client | binding_banner, START_UP_LOGIN_BANNER_NOTIFICATION},
    {bind_to, binding_aaa_banner, paths::aaa_banner_tree, "SSH BANNER AAA",
     binding_server | binding_client | binding_banner, START_UP_AAA_BANNER_BINDING},
    {notify_aaa_banner, binding_aaa_banner, "0x0", "Failed to register for banner config notification",
     binding_server | binding_client | binding_banner | binding_aaa_banner, START_UP_AAA_BANNER_NOTIFICATION},
};

void unbind(uint32_t bindings) {
    for (uint32_t bit = binding_server; bit <= binding_aaa_banner; bit <<= 1) {
        if ((bindings & bit) != 0) {
            datastore_unbind(*handle_of(bit));
            *handle_of(bit) = nullptr;
        }
    }
}

// --- Management-plane protection -------------------------------------------------------------------------------------

struct protected_service {
    uint32_t code;
    const char* failure_text;
};

constexpr protected_service protected_services[] = {
    {MPP_SERVICE_SSH, "MPP init for SSH failed"},
    {MPP_SERVICE_NETCONF, "MPP init for Netconf failed"},
};

/// Closes the first `count` services.
void close_protection(size_t count) {
    for (size_t i = 0; i < count; i++) {
        mpp_close(protected_services[i].code);
    }
}

// --- Steps -----------------------------------------------------------------------------------------------------------

start_up_status create_traces() {
    trace_initialise(agent_trace_table);
    return START_UP_DONE;
}

start_up_status create_event_manager() {
    if (event_manager_create(paths::device, &agent_handles.event_manager) != 0) {
        log_errno("Failed to create event manager");
        return START_UP_EVENT_MANAGER;
    }
    return START_UP_DONE;
}

start_up_status read_role() {
    agent_handles.process_role = process_manager_role();
    return START_UP_DONE;
}

start_up_status write_pam() {
    write_pam_file();
    return START_UP_DONE;
}

start_up_status create_pam_watcher() {
    if (create_pam_inotify() != 0) {
        log_errno("Failed to initialize inotify for Norvossh PAM Config file");
        return START_UP_INOTIFY;
    }
    return START_UP_DONE;
}

start_up_status watch_pam() {
    if (watch_pam_directory() != 0) {
        log_errno("Failed to adda watch for Norvossh PAM Config file");
        return START_UP_INOTIFY_WATCH;
    }
    return START_UP_DONE;
}

start_up_status attach_pam_watcher() {
    const platform_status status = event_manager_attach_fd(agent_handles.event_manager, agent_handles.pam_inotify,
                                                           EVENT_MANAGER_READ, pam_config_file_handler, nullptr);
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, "Failed to attach event handler for norvossh PAM Config file");
        return START_UP_INOTIFY_ATTACH;
    }
    return START_UP_DONE;
}

start_up_status wait_for_primary() {
    if (agent_handles.process_role == PROCESS_ROLE_PRIMARY) {
        return START_UP_DONE;
    }
    process_manager_ready();
    return process_manager_wait_primary() == 0 ? START_UP_DONE : START_UP_NOT_PRIMARY;
}

start_up_status register_debug_flags() {
    const platform_status status = debug_initialise(agent_handles.event_manager, debug_level_handler);
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, "Failed to initiate debug event");
        return START_UP_DEBUG;
    }
    return START_UP_DONE;
}

start_up_status announce_start() {
    agent_handles.respawn_count = process_manager_respawn_count();
    debug_print("ssh_cfg_agent starts, role:=%u, respawn count:=%u", agent_handles.process_role,
                agent_handles.respawn_count);
    trace_event(core_trace_started, {agent_handles.process_role, agent_handles.respawn_count});
    return START_UP_DONE;
}

start_up_status fill_tables() {
    fill_parameter_tables();
    return START_UP_DONE;
}

start_up_status make_empty_directory() {
    if (mkdir(paths::empty_directory, empty_directory_mode) != 0 && errno != EEXIST) {
        log_errno("Failed to create /var/empty");
        return START_UP_FILES;
    }
    return START_UP_DONE;
}

start_up_status prepare_files() {
    if (prepare_default_files() != 0) {
        log_errno("Failed to create a default configuration file");
        return START_UP_FILES;
    }
    return START_UP_DONE;
}

start_up_status set_up_datastore() {
    for (const datastore_step& step : datastore_steps) {
        const platform_status status = step.operation.run(step);
        if (status != PLATFORM_OK) {
            step.operation.report(status, step.text);
            unbind(step.unbind);
            return step.failure;
        }
    }
    return START_UP_DONE;
}

start_up_status report_ready() {
    process_manager_ready();
    trace_event(core_trace_ready);
    return START_UP_DONE;
}

start_up_status connect_shelf() {
    connect_shelf_manager();
    return START_UP_DONE;
}

struct provider_step {
    platform_status (*run)();
    const char* text;  ///< logged on failure; null if the provider logs enough itself
    start_up_status failure;
};

constexpr provider_step providers[] = {
    {register_session_record_provider, nullptr, START_UP_SESSION_XML_PROVIDER},
    {register_server_session_provider, nullptr, START_UP_SERVER_SESSION_PROVIDER},
    {register_client_session_provider, nullptr, START_UP_CLIENT_SESSION_PROVIDER},
    {sshd_params_edm_init, nullptr, START_UP_PARAMETERS_PROVIDER},
    {ocssh_edm_init, "OC SSH Telemetry EDM init failed, error", START_UP_TELEMETRY_PROVIDER},
};

start_up_status register_providers() {
    for (const provider_step& provider : providers) {
        const platform_status status = provider.run();
        if (status != PLATFORM_OK) {
            if (provider.text != nullptr) {
                log_status(ERR_ERRNO, status, provider.text);
            }
            return provider.failure;
        }
    }
    return START_UP_DONE;
}

start_up_status open_telemetry() {
    ocssh_telemetry_init();
    return START_UP_DONE;
}

start_up_status write_lines() {
    write_initial_lines();
    return START_UP_DONE;
}

start_up_status register_fips() {
    debug_print("Registering for FIPS mode notification");
    const platform_status status = norvossh_fips_register();
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, "Failed to register for fips notification");
        return START_UP_FIPS;
    }
    return START_UP_DONE;
}

start_up_status publish_file_systems() {
    if (publish_filesystem_list() != 0) {
        log_error("Failed to store filesystemlist in shared memory");
        return START_UP_FILE_SYSTEM_LIST;
    }
    return START_UP_DONE;
}

/// Even without these messages the servers of existing namespaces run, so a failure is not fatal.
start_up_status attach_namespace_messages() {
    const platform_status status =
        event_manager_attach_message(agent_handles.event_manager, NAMESPACE_MESSAGE, ssh_proxy_nns_handler, nullptr);
    if (status != PLATFORM_OK) {
        log_details("Event message attach failed ", platform_status_text(status), "");
        trace_error(core_trace_namespace_attach, {status});
    }
    return START_UP_DONE;
}

start_up_status open_protection() {
    for (size_t i = 0; i < std::size(protected_services); i++) {
        const platform_status status = mpp_init(protected_services[i].code);
        if (status != PLATFORM_OK) {
            close_protection(i + 1);
            log_status(ERR_ERRNO, status, protected_services[i].failure_text);
            return START_UP_PROTECTION;
        }
    }
    return START_UP_DONE;
}

start_up_status offer_acl_verifier() {
    register_acl_verifier();
    return START_UP_DONE;
}

start_up_status create_default_unit() {
    if (create_sshd_service_config_file("vrf-default") != 0) {
        debug_print("Failed to create SSHD systemd service and config file for vrf:=default");
        return START_UP_DEFAULT_UNIT;
    }
    return START_UP_DONE;
}

/// Runs before the servers' files are created from the default one, which names the banner file.
start_up_status build_banners() {
    apply_present_banners();
    return START_UP_DONE;
}

start_up_status scan(datastore_binding* binding, const char* failure_text) {
    const platform_status status =
        datastore_backend_scan(binding, &item_table, whole_subtree, scan_cookie, agent_handles.event_manager);
    if (status != PLATFORM_OK) {
        close_protection(std::size(protected_services));
        log_status(ERR_ERRNO, status, failure_text);
        return START_UP_SCAN;
    }
    return START_UP_DONE;
}

start_up_status scan_server() {
    return scan(agent_handles.server_binding, "Backend scan failed for server config");
}

start_up_status scan_client() {
    return scan(agent_handles.client_binding, "Backend scan failed for client config");
}

start_up_status mark_scanned() {
    agent_handles.initial_scan_complete = 1;
    return START_UP_DONE;
}

/// The debug flags and the logging item determine the log level from the beginning, whatever an earlier process left in
/// the files.
start_up_status choose_log_levels() {
    restore_log_levels();
    return START_UP_DONE;
}

start_up_status take_over_restarts() {
    take_over_restart_record();
    return START_UP_DONE;
}

start_up_status reconcile_with_machine() {
    reconcile_at_start();
    return START_UP_DONE;
}

struct start_up_step {
    const char* name;
    start_up_status (*run)();
};

/// The order is part of the contract with the platform: only the PAM watch is registered before this node is primary,
/// readiness is reported before the files are written, and the stored configuration is applied last. Then the machine is
/// brought back to it, whatever an earlier process left undone.
constexpr start_up_step steps[] = {
    {"trace buffers", create_traces},
    {"event manager", create_event_manager},
    {"process role", read_role},
    {"PAM file", write_pam},
    {"PAM inotify", create_pam_watcher},
    {"PAM watch", watch_pam},
    {"PAM handler", attach_pam_watcher},
    {"primary", wait_for_primary},
    {"debug flags", register_debug_flags},
    {"start", announce_start},
    {"parameter tables", fill_tables},
    {"empty directory", make_empty_directory},
    {"restarts due", take_over_restarts},
    {"default files", prepare_files},
    {"datastore", set_up_datastore},
    {"ready", report_ready},
    {"shelf manager", connect_shelf},
    {"data providers", register_providers},
    {"telemetry producer", open_telemetry},
    {"initial lines", write_lines},
    {"FIPS mode", register_fips},
    {"file-system list", publish_file_systems},
    {"namespace messages", attach_namespace_messages},
    {"protection", open_protection},
    {"access-list verifier", offer_acl_verifier},
    {"default unit", create_default_unit},
    {"banners", build_banners},
    {"server scan", scan_server},
    {"client scan", scan_client},
    {"scan complete", mark_scanned},
    {"log levels", choose_log_levels},
    {"reconciliation", reconcile_with_machine},
};

/// Gives the lower modules the functions they call in the higher ones.
void fill_upcalls() {
    agent_upcalls.ssh_process_restart = ssh_process_restart;
    agent_upcalls.delete_vrf_node = delete_vrf_node;
    agent_upcalls.create_nft_table = create_nft_table;
    agent_upcalls.ssh_flush_nft_table = ssh_flush_nft_table;
    agent_upcalls.ssh_configure_v4acl = [](vrf_node* node, uint32_t kind) {
        return ssh_configure_v4acl(agent_handles.event_manager, node, kind);
    };
    agent_upcalls.ssh_configure_v6acl = [](vrf_node* node, uint32_t kind) {
        return ssh_configure_v6acl(agent_handles.event_manager, node, kind);
    };
    agent_upcalls.ssh_remove_v4acl_config = ssh_remove_v4acl_config;
    agent_upcalls.ssh_remove_v6acl_config = ssh_remove_v6acl_config;
    agent_upcalls.release_unused_acls = release_unused_subscriptions;
    agent_upcalls.reload_acls = acl_reload_failed_of;
    agent_upcalls.ocssh_telemetry_publish = ocssh_telemetry_publish;
}

/// Also a group of commands, so that a hanging systemd holds up a commit only once.
void begin_commit(void*) {
    begin_command_group();
    put_off_server_changes();
}

void end_commit(void*) {
    carry_out_server_changes();
    end_command_group();
}

void follow_commits() {
    constexpr enforcement_commit_callbacks callbacks = {begin_commit, end_commit};
    enforcement_announce_commits(&callbacks, nullptr);
}

start_up_status take_steps() {
    fill_upcalls();
    follow_commits();
    for (const start_up_step& step : steps) {
        const start_up_status status = step.run();
        if (status != START_UP_DONE) {
            trace_error(core_trace_start_up_failed, {step.name, status});
            return status;
        }
    }
    return START_UP_DONE;
}

}  // namespace

start_up_status start_up() {
    // One group, so that a hanging systemctl is waited for only once.
    begin_command_group();
    const start_up_status status = take_steps();
    end_command_group();
    return status;
}

int run_agent() {
    const start_up_status status = start_up();
    if (status != START_UP_DONE) {
        return status;
    }
    run_event_loop(agent_handles.event_manager);
}
