#include "config_files/restart_record.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <vector>

#include "config_files/parameter_table.h"
#include "config_files/trace_points.h"
#include "config_files/vrf_node.h"
#include "core/paths.h"
#include "core/text.h"
#include "core/trace.h"

// The first line is the time, followed by one line for each VRF. A line "*" means all of them: within a walk, the file
// is written once instead of once for each VRF.

namespace {

constexpr char every_vrf[] = "*";
constexpr size_t line_size = 64;

bool in_walk;

/// What an earlier process left behind: the restarts of servers that were started before it was recorded.
struct earlier_restarts {
    bool exist = false;
    bool of_every_server = false;
    uint64_t recorded = 0;  ///< CLOCK_MONOTONIC, microseconds
    std::vector<std::string> names;
};

earlier_restarts earlier;

uint64_t microseconds_now() {
    constexpr uint64_t microseconds = 1000000;
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * microseconds + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

bool any_restart_due() {
    for (const vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (node->restart_due != 0) {
            return true;
        }
    }
    return earlier.exist;
}

void write_lines(FILE* file) {
    std::fprintf(file, "%llu\n", static_cast<unsigned long long>(microseconds_now()));
    if (in_walk || earlier.of_every_server) {
        std::fprintf(file, "%s\n", every_vrf);
    }
    for (const std::string& name : earlier.names) {
        std::fprintf(file, "%s\n", name.c_str());
    }
    for (const vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (node->restart_due != 0) {
            std::fprintf(file, "%s\n", node->name);
        }
    }
}

int fail_to_write(const char* path) {
    const int error = errno;
    trace_error(config_files_trace_write, {path, error});
    std::remove(paths::restart_record_temporary);
    errno = error;
    return -1;
}

/// Writes the record as it is now. Returns 0, or -1 with errno and the previous record in place.
int write_record() {
    FILE* file = std::fopen(paths::restart_record_temporary, "we");
    if (file == nullptr) {
        return fail_to_write(paths::restart_record_temporary);
    }
    write_lines(file);
    const bool written = std::ferror(file) == 0 && std::fflush(file) == 0;
    if (std::fclose(file) != 0 || !written ||
        std::rename(paths::restart_record_temporary, paths::restart_record) != 0) {
        return fail_to_write(paths::restart_record);
    }
    return 0;
}

void remove_record() {
    if (std::remove(paths::restart_record) != 0 && errno != ENOENT) {
        trace_error(config_files_trace_remove, {paths::restart_record, errno});
    }
}

/// Updates the record after a restart. If that fails, the restart is at worst repeated.
void update_record() {
    const int error = errno;
    if (!in_walk && any_restart_due()) {
        write_record();
    } else if (!in_walk) {
        remove_record();
    }
    errno = error;
}

bool read_line(FILE* file, char (&line)[line_size]) {
    if (std::fgets(line, sizeof line, file) == nullptr) {
        return false;
    }
    line[std::strcspn(line, "\n")] = '\0';
    return true;
}

/// Reads an earlier process's record. Returns false if it is invalid.
bool read_record(FILE* file) {
    char line[line_size];
    unsigned long long recorded = 0;
    if (!read_line(file, line) || std::sscanf(line, "%llu", &recorded) != 1) {
        return false;
    }
    earlier = {true, false, recorded, {}};
    while (read_line(file, line)) {
        if (std::strcmp(line, every_vrf) == 0) {
            earlier.of_every_server = true;
        } else {
            earlier.names.emplace_back(line);
        }
    }
    return std::ferror(file) == 0;
}

}  // namespace

int note_file_change(const char* path) {
    if (!begins_with(path, paths::vrf_server_file_prefix)) {
        return 0;
    }
    vrf_node* node = find_vrf_node(path + std::strlen(paths::vrf_server_file_prefix));
    if (node == nullptr) {
        return 0;
    }
    // Also when the restart is due already: systemd may have restarted the server since that was recorded.
    const uint32_t before = node->restart_due;
    node->restart_due = 1;
    if (in_walk || write_record() == 0) {
        return 0;
    }
    node->restart_due = before;
    return -1;
}

void note_restart_done(const char* vrf_name) {
    vrf_node* node = find_vrf_node(vrf_name);
    if (node != nullptr && node->restart_due == 0) {
        return;
    }
    // The node of a VRF whose item is deleted goes before its server stops.
    if (node != nullptr) {
        node->restart_due = 0;
    }
    update_record();
}

int begin_restart_walk() {
    in_walk = true;
    if (write_record() == 0) {
        return 0;
    }
    in_walk = false;
    return -1;
}

void end_restart_walk() {
    in_walk = false;
    update_record();
}

void take_over_restart_record() {
    earlier = {};
    in_walk = false;
    FILE* file = std::fopen(paths::restart_record, "re");
    if (file == nullptr && errno == ENOENT) {
        return;
    }
    // An unreadable record means every server, whenever it was started.
    bool read = false;
    try {
        read = file != nullptr && read_record(file);
    } catch (const std::bad_alloc&) {
    }
    if (!read) {
        trace_error(config_files_trace_open, {paths::restart_record, "r", errno});
        earlier = {true, true, UINT64_MAX, {}};
    }
    if (file != nullptr) {
        std::fclose(file);
    }
}

bool restart_is_due(const char* vrf_name, uint64_t started) {
    const vrf_node* node = find_vrf_node(vrf_name);
    if (node != nullptr && node->restart_due != 0) {
        return true;
    }
    return earlier.exist && started < earlier.recorded &&
           (earlier.of_every_server || std::ranges::find(earlier.names, vrf_name) != earlier.names.end());
}

void drop_earlier_restarts() {
    if (earlier.exist) {
        earlier = {};
        update_record();
    }
}
