#include "vrf/unit_states.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/shell_command.h"
#include "core/text.h"

namespace {

constexpr char query[] =
    "systemctl show --property=Id,ActiveState,MainPID,NeedDaemonReload,ExecMainStartTimestampMonotonic ";
constexpr char short_query[] = "systemctl list-units --all --full --plain --no-legend ";
constexpr char all_units[] = "'sshd_service_*'";
/// Listing units takes milliseconds. If it hangs, every systemctl does.
constexpr command_limit listing_of_units = {10'000, true};

constexpr char unit_prefix[] = "sshd_service_";
constexpr char unit_suffix[] = ".service";
constexpr size_t state_line_size = 512;

/// The value of a line "NAME=VALUE", or null.
const char* value_in(const char* line, const char* name) {
    return begins_with(line, name) ? line + std::strlen(name) : nullptr;
}

std::string vrf_of_unit(const char* unit) {
    std::string name = begins_with(unit, unit_prefix) ? unit + std::strlen(unit_prefix) : "";
    const size_t suffix = name.rfind(unit_suffix);
    return suffix != std::string::npos ? name.substr(0, suffix) : name;
}

void take_line(std::vector<unit_state>& units, unit_state& unit, const char* line) {
    if (line[0] == '\0') {
        if (!unit.vrf_name.empty()) {
            units.push_back(unit);
        }
        unit = {{}, {}, 0, UINT64_MAX};
    } else if (const char* id = value_in(line, "Id=")) {
        unit.vrf_name = vrf_of_unit(id);
    } else if (const char* state = value_in(line, "ActiveState=")) {
        unit.active_state = state;
    } else if (const char* process = value_in(line, "MainPID=")) {
        unit.main_process = std::atoi(process);
    } else if (const char* reload = value_in(line, "NeedDaemonReload=")) {
        unit.needs_reload = std::strcmp(reload, "yes") == 0;
    } else if (const char* started = value_in(line, "ExecMainStartTimestampMonotonic=")) {
        unit.started = std::strtoull(started, nullptr, 10);
    }
}

void read_properties(FILE* file, std::vector<unit_state>& units) {
    unit_state unit = {{}, {}, 0, UINT64_MAX};
    char line[state_line_size];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        line[std::strcspn(line, "\n")] = '\0';
        take_line(units, unit, line);
    }
    take_line(units, unit, "");
}

/// Reads lines that consist of the unit's name, its load state and its active state.
void read_list(FILE* file, std::vector<unit_state>& units) {
    char line[state_line_size];
    char name[state_line_size];
    char active_state[state_line_size];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (std::sscanf(line, "%511s %*s %511s", name, active_state) == 2) {
            units.push_back({vrf_of_unit(name), active_state, 0, UINT64_MAX});
        }
    }
}

int query_units(const std::string& command, void (*read)(FILE*, std::vector<unit_state>&),
                std::vector<unit_state>& units) {
    units.clear();
    // In memory, because a pipe would have to be read while the command runs.
    const int output = memfd_create("unit states", MFD_CLOEXEC);
    if (output < 0) {
        return -1;
    }
    const int status = run_shell_command(command.c_str(), listing_of_units, output);
    FILE* file = status == 0 && lseek(output, 0, SEEK_SET) == 0 ? fdopen(output, "r") : nullptr;
    if (file == nullptr) {
        const int error = status > 0 ? EIO : errno;
        close(output);
        errno = error;
        return -1;
    }
    read(file, units);
    std::fclose(file);
    return 0;
}

}  // namespace

bool is_running(const unit_state& unit) {
    return unit.active_state == "active" || unit.active_state == "reloading";
}

bool is_stopped(const unit_state& unit) {
    return unit.active_state == "inactive" || unit.active_state == "failed";
}

int read_unit_states(std::vector<unit_state>* units, const char* names) {
    return query_units(std::string(query) + (names != nullptr ? names : all_units), read_properties, *units);
}

int read_active_states(std::vector<unit_state>* units, const char* names) {
    return query_units(std::string(short_query) + names, read_list, *units);
}

const unit_state* find_unit_state(const std::vector<unit_state>& units, const char* vrf_name) {
    for (const unit_state& unit : units) {
        if (unit.vrf_name == vrf_name) {
            return &unit;
        }
    }
    return nullptr;
}
