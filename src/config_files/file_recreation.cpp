#include "config_files/file_recreation.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "config_files/files.h"
#include "config_files/parameter_table.h"
#include "config_files/restart_record.h"
#include "config_files/trace_points.h"
#include "config_files/vrf_node.h"
#include "core/agent_state.h"
#include "core/debug.h"
#include "core/paths.h"
#include "core/text.h"

// A lost file is recreated under the temporary name and renamed once it is complete. Nobody ever reads half a file, and
// after a failure the file is still missing, so that the next edit tries again.

namespace {

bool is_set(const char* text) {
    return text != nullptr && text[0] != '\0';
}

void write_entry(FILE* file, const char* keyword, const char* value) {
    if (is_set(value)) {
        std::fprintf(file, "%s %s\n", keyword, value);
    }
}

/// Closes the temporary file and renames it. Returns 0, or -1 with errno and the temporary file removed.
int put_in_place(FILE* file, const char* path) {
    const bool written = std::ferror(file) == 0 && std::fflush(file) == 0;
    const int write_error = errno;
    const bool closed = std::fclose(file) == 0;
    if (written && closed && note_file_change(path) == 0 && std::rename(paths::temporary_file, path) == 0) {
        trace_event(config_files_trace_recreated, {path});
        return 0;
    }
    const int error = written ? errno : write_error;
    trace_error(config_files_trace_write, {path, error});
    std::remove(paths::temporary_file);
    errno = error;
    return -1;
}

void write_server_table(FILE* file) {
    for (size_t i = SERVER_START_MARKER + 1; i < SERVER_END_MARKER; i++) {
        const setting_entry& entry = server_config.parameters[i];
        char buffer[setting_text_size];
        write_entry(file, entry.keyword, text_of_line(entry.line_text, entry.current, buffer));
    }
    for (size_t i = SERVER_ALGORITHM_START_MARKER + 1; i < SERVER_ALGORITHM_END_MARKER; i++) {
        write_entry(file, server_config.algorithms[i].keyword, offered_list(server_config.algorithms[i]));
    }
}

/// Whether the datastore holds an item that requests an SSH server in the VRF.
bool ssh_server_configured(const char* vrf_name) {
    char item[PATH_MAX];
    format_text(item, sizeof item, "sshd/vrf/%s", vrf_name);
    if (datastore_item_get(agent_handles.server_binding, item, nullptr, 0, nullptr) == PLATFORM_OK) {
        return true;
    }
    return std::strcmp(vrf_name, "default") == 0 &&
           datastore_item_get(agent_handles.server_binding, "sshd/v2", nullptr, 0, nullptr) == PLATFORM_OK;
}

/// Writes the lines that only this VRF's file has.
void write_vrf_lines(FILE* file, const char* vrf_name) {
    const vrf_node* node = find_vrf_node(vrf_name);
    if (node == nullptr) {
        return;
    }
    vrf_file_line lines[vrf_file_line_max];
    const size_t count = vrf_file_lines(*node, lines);
    for (size_t i = 0; i < count; i++) {
        write_entry(file, lines[i].keyword, lines[i].value);
    }
}

}  // namespace

size_t vrf_file_lines(const vrf_node& node, vrf_file_line (&lines)[vrf_file_line_max]) {
    size_t count = 0;
    const line_entry& subsystem = node.lines[VRF_NETCONF_SUBSYSTEM];
    if (is_set(subsystem.current)) {
        const line_entry& port = server_config.parameters[SERVER_NETCONF_PORT];
        lines[count++] = {subsystem.keyword, subsystem.current};
        lines[count++] = {port.keyword, effective_text(port)};
    }
    if (ssh_server_configured(node.name)) {
        const line_entry& port = server_config.parameters[SERVER_PORT];
        lines[count++] = {port.keyword, effective_text(port)};
    }
    return count;
}

int default_config_file_recreate() {
    debug_print("%s", __func__);
    if (create_file_in_dir(paths::configuration_directory, paths::temporary_file) != 0) {
        const int error = errno;
        debug_print("%s, Error:=%s(0x%x), file create failed", __func__, platform_status_text(error), error);
        errno = error;
        return -1;
    }
    FILE* file = std::fopen(paths::temporary_file, "we");
    if (file == nullptr) {
        const int error = errno;
        debug_print("%s, Error:=%s(0x%x), file open failed", __func__, platform_status_text(error), error);
        trace_error(config_files_trace_open, {paths::temporary_file, "w", error});
        errno = error;
        return -1;
    }
    write_server_table(file);
    return put_in_place(file, paths::server_file);
}

int vrf_config_file_recreate(const char* vrf_name) {
    if (vrf_name == nullptr) {
        debug_print("%s, Vrf-name:=NULL, Vrf config file recreate failed", __func__);
        trace_error(config_files_trace_argument, {__func__});
        return -1;
    }
    debug_print("%s, vrfname:=%s", __func__, vrf_name);
    if (copy_file(paths::server_file, paths::temporary_file) != 0) {
        const int error = errno;
        std::remove(paths::temporary_file);
        errno = error;
        return -1;
    }
    FILE* file = std::fopen(paths::temporary_file, "ae");
    if (file == nullptr) {
        const int error = errno;
        debug_print("%s, File:=%s, Error:=%s(0x%x), file open failed", __func__, paths::temporary_file,
                    platform_status_text(error), error);
        trace_error(config_files_trace_open, {paths::temporary_file, "a", error});
        errno = error;
        return -1;
    }
    write_vrf_lines(file, vrf_name);
    char path[PATH_MAX];
    vrf_config_file_path(vrf_name, path, sizeof path);
    return put_in_place(file, path);
}
