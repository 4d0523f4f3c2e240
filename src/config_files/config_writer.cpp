#include "config_files/config_writer.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "config_files/file_recreation.h"
#include "config_files/files.h"
#include "config_files/line_editor.h"
#include "config_files/parameter_table.h"
#include "config_files/restart_record.h"
#include "config_files/trace_points.h"
#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "core/paths.h"
#include "core/text.h"
#include "core/upcalls.h"
#include "platform/enforcement.h"
#include "platform/status.h"

namespace {

constexpr size_t new_line_size = 4097;  ///< 4096 characters and NUL

using line_editor = int (*)(const char* file, const char* keyword, int add, char* new_line, uint32_t* change);

int edit_one_line(const char* file, const char* keyword, int add, char* new_line, uint32_t* change) {
    return update_string_in_file(file, keyword, add, new_line, change);
}

/// One keyword that is written into several files in turn.
struct config_update {
    line_editor editor;
    uint32_t event;
    const char* keyword;
    const char* value;
    uint32_t allvrf;
};

bool deletes(uint32_t event) {
    return (event & event_delete_value) != 0;
}

const char* shown(const char* text) {
    return text != nullptr ? text : "NULL";
}

/// Formats "keyword value". Returns null if there is no value to write or none is needed: of the keywords that are
/// deleted, only "Port" has to say which line is meant.
char* make_new_line(const config_update& update, char (&buffer)[new_line_size]) {
    if (update.value == nullptr || (deletes(update.event) && std::strcmp(update.keyword, "Port") != 0)) {
        return nullptr;
    }
    format_text(buffer, sizeof buffer, "%s %s", update.keyword, update.value);
    return buffer;
}

int edit_file(const config_update& update, const char* file, uint32_t* change) {
    char buffer[new_line_size];
    char* new_line = make_new_line(update, buffer);
    return update.editor(file, update.keyword, deletes(update.event) ? 0 : 1, new_line, change);
}

/// The result of recreating a missing file, which counts as a change.
int remade(int result, uint32_t* change) {
    *change = result == 0 ? 1 : *change;
    return result;
}

int edit_default_file(const config_update& update, uint32_t* change) {
    int result = edit_file(update, paths::server_file, change);
    if (result != 0 && errno == ENOENT) {
        debug_print("default config file not present, will be recreating");
        result = remade(default_config_file_recreate(), change);
    }
    return result == 0 ? 0 : report_file_not_in_force(paths::server_file);
}

int edit_vrf_file(const config_update& update, const char* vrf_name, uint32_t* change) {
    char path[PATH_MAX];
    vrf_config_file_path(vrf_name, path, sizeof path);
    int result = edit_file(update, path, change);
    if (result != 0 && errno == ENOENT) {
        result = remade(vrf_config_file_recreate(vrf_name), change);
    }
    return result == 0 ? 0 : report_file_not_in_force(path);
}

void restart_server(const char* vrf_name, uint32_t start) {
    if (agent_upcalls.ssh_process_restart != nullptr) {
        agent_upcalls.ssh_process_restart(start, vrf_name);
    }
}

/// No configuration item refers to this VRF any more.
void remove_unreferenced_node(vrf_node* node) {
    delete_vrf_config_file(node->name);
    restart_server(node->name, 0);
    if (agent_upcalls.delete_vrf_node != nullptr) {
        agent_upcalls.delete_vrf_node(node);
    }
}

bool namespace_exists(const char* vrf_name) {
    char path[PATH_MAX];
    format_text(path, sizeof path, "%s%s", paths::namespace_prefix, vrf_name);
    return path_may_exist(path);
}

/// Edits the file of each VRF and restarts the servers whose files changed.
int walk_vrf_files(const config_update& update) {
    uint32_t change = 0;
    vrf_node* next = nullptr;
    for (vrf_node* node = server_config.nodes; node != nullptr; node = next) {
        next = node->next;
        if (node->reference_count <= 0) {
            remove_unreferenced_node(node);
            continue;
        }
        if (edit_vrf_file(update, node->name, &change) != 0) {
            return -1;
        }
        if (change == 0) {
            // The files of all VRFs agree on the common keywords, so the first one represents them all.
            return 0;
        }
        if (namespace_exists(node->name)) {
            restart_server(node->name, 1);
        }
    }
    return 0;
}

int edit_vrf_files(const config_update& update) {
    if (server_config.nodes == nullptr) {
        return 0;
    }
    if (begin_restart_walk() != 0) {
        return report_file_not_in_force(paths::restart_record);
    }
    const int result = walk_vrf_files(update);
    end_restart_walk();
    return result;
}

int update_server_files(const config_update& update) {
    uint32_t change = 0;
    if (edit_default_file(update, &change) != 0) {
        return -1;
    }
    if (update.allvrf == 0 || change == 0) {
        return 0;
    }
    return edit_vrf_files(update);
}

}  // namespace

int report_file_not_in_force(const char* path) {
    const int error = errno;
    char subject[PATH_MAX + sizeof "file "];
    format_text(subject, sizeof subject, "file %s", path);
    enforcement_failed(subject, platform_status_text(static_cast<platform_status>(error)));
    errno = error;
    return -1;
}

int update_config_files_restart(uint32_t event, const char* keyword, const char* value, uint32_t allvrf) {
    debug_print("%s, event:=%d, code:=%s, val:=%s, allvrf:=%d", __func__, event, keyword, shown(value), allvrf);
    return update_server_files({edit_one_line, event, keyword, value, allvrf});
}

int update_config_files_multiple_restart(uint32_t event, const char* keyword, const char* value, uint32_t allvrf) {
    debug_print("update configfile multiple, event:=%d, code:=%s, val:=%s, allvrf:=%d", event, keyword, shown(value),
                allvrf);
    return update_server_files({update_multiple_strings_in_file, event, keyword, value, allvrf});
}

void update_client_config_file(uint32_t event, const char* keyword, const char* value) {
    debug_print("%s, event:=%d, code:=%s, val:=%s", __func__, event, keyword, shown(value));
    if (file_exists(paths::client_file) != 1 &&
        create_file_in_dir(paths::configuration_directory, paths::client_file) != 0) {
        report_file_not_in_force(paths::client_file);
        return;
    }
    // No server needs a restart: clients read the file when they start.
    uint32_t change = 0;
    char buffer[new_line_size];
    char* new_line = nullptr;
    if (!deletes(event) && value != nullptr) {
        format_text(buffer, sizeof buffer, "%s %s", keyword, value);
        new_line = buffer;
    }
    if (update_string_in_file(paths::client_file, keyword, deletes(event) ? 0 : 1, new_line, &change) != 0) {
        report_file_not_in_force(paths::client_file);
    }
}

int update_vrf_config_file(uint32_t event, const char* vrf_name, const char* keyword, const char* value,
                           uint32_t* change) {
    return edit_vrf_file({edit_one_line, event, keyword, value, 0}, vrf_name, change);
}

void delete_vrf_config_file(const char* vrf_name) {
    debug_print("%s, vrfname:=%s", __func__, vrf_name);
    char path[PATH_MAX];
    vrf_config_file_path(vrf_name, path, sizeof path);
    if (std::remove(path) != 0) {
        trace_error(config_files_trace_remove, {path, errno});
    }
}
