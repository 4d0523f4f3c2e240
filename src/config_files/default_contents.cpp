#include "config_files/default_contents.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "config_files/config_writer.h"
#include "config_files/files.h"
#include "config_files/parameter_table.h"
#include "config_files/trace_points.h"
#include "core/agent_state.h"
#include "core/debug.h"
#include "core/paths.h"
#include "core/text.h"

namespace {

/// A missing file is made empty, and so is one of an earlier run; after a failure the servers keep theirs.
int prepare_default_file(const char* path) {
    if (file_exists(path) == 1) {
        if (agent.respawn_count >= respawn_after_failure) {
            return 0;
        }
        if (std::remove(path) != 0) {
            trace_error(config_files_trace_remove, {path, errno});
        }
    }
    return create_file_in_dir(paths::configuration_directory, path);
}

/// A line that every start writes: a setting or a list.
struct initial_line {
    const line_entry* setting;
    const algorithm_entry* list;
};

constexpr initial_line line_of(server_parameter index) {
    return {&server.parameters[index], nullptr};
}
constexpr initial_line line_of(server_algorithm index) {
    return {nullptr, &server.algorithms[index]};
}
constexpr initial_line line_of(client_parameter index) {
    return {&client.parameters[index], nullptr};
}
constexpr initial_line line_of(client_algorithm index) {
    return {nullptr, &client.algorithms[index]};
}

constexpr initial_line server_lines[] = {
    line_of(SERVER_USE_PAM),
    line_of(SERVER_HOST_KEY_ALGORITHMS),
    line_of(SERVER_PERMIT_ROOT_LOGIN),
    line_of(SERVER_MAX_AUTH_TRIES),
    line_of(SERVER_MAX_SESSIONS),
    line_of(SERVER_REKEY_LIMIT),
    line_of(SERVER_SUBSYSTEM),
    line_of(SERVER_MACS),
    line_of(SERVER_CIPHERS),
    line_of(SERVER_KEX_ALGORITHMS),
    line_of(SERVER_ACCEPTED_ALGORITHMS),
    line_of(SERVER_LOGIN_GRACE_TIME),
    line_of(SERVER_CLIENT_ALIVE_INTERVAL),
    line_of(SERVER_ALLOW_TCP_FORWARDING),
};

constexpr initial_line client_lines[] = {
    // The client starts with the server's limit; its own entry counts from its first change on.
    line_of(SERVER_REKEY_LIMIT),
    line_of(CLIENT_USER_KNOWN_HOSTS_FILE),
    line_of(CLIENT_STRICT_HOST_KEY_CHECKING),
    line_of(CLIENT_HOST_KEY_ALGORITHMS),
    line_of(CLIENT_MACS),
    line_of(CLIENT_CIPHERS),
    line_of(CLIENT_KEX_ALGORITHMS),
    line_of(CLIENT_SERVER_ALIVE_INTERVAL),
    line_of(CLIENT_PUBKEY_AUTHENTICATION),
};

void write_server_line(const initial_line& line) {
    if (line.list != nullptr) {
        update_config_files_restart(event_set_value, line.list->keyword, line.list->current, line.list->allvrf);
    } else {
        update_config_files_restart(event_set_value, line.setting->keyword, line.setting->current,
                                    line.setting->allvrf);
    }
}

void write_client_line(const initial_line& line) {
    if (line.list != nullptr) {
        update_client_config_file(event_set_value, line.list->keyword, line.list->current);
    } else {
        update_client_config_file(event_set_value, line.setting->keyword, line.setting->current);
    }
}

}  // namespace

int prepare_default_files() {
    return prepare_default_file(paths::server_file) == 0 && prepare_default_file(paths::client_file) == 0 ? 0 : -1;
}

void write_initial_lines() {
    for (const initial_line& line : server_lines) {
        write_server_line(line);
    }
    const algorithm_entry& host_keys = server.algorithms[SERVER_HOST_KEY];
    update_config_files_multiple_restart(event_set_value, host_keys.keyword, host_keys.current, host_keys.allvrf);
    char ip_qos[setting_text_size];
    const line_entry& server_qos = server.parameters[SERVER_IP_QOS];
    ip_qos_text(server_qos.current, ip_qos, sizeof ip_qos);
    update_config_files_restart(event_set_value, server_qos.keyword, ip_qos, server_qos.allvrf);

    for (const initial_line& line : client_lines) {
        write_client_line(line);
    }
    const line_entry& client_qos = client.parameters[CLIENT_IP_QOS];
    ip_qos_text(client_qos.current, ip_qos, sizeof ip_qos);
    update_client_config_file(event_set_value, client_qos.keyword, ip_qos);
}
