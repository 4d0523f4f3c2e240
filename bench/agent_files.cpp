/// The agent's work on files and commands for 256 VRFs, on the fake platform with stubs for systemctl, ip and nft: one
/// keyword in all files, compared with copying and renaming them; start-up with all VRFs stored, compared with the same
/// file writes and shell commands alone.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "agent_harness.h"
#include "config_files/config_writer.h"
#include "config_files/default_contents.h"
#include "config_files/parameter_table.h"
#include "core/paths.h"
#include "core/shell_command.h"
#include "core/start_up.h"
#include "fake/fake_platform.h"
#include "figures.h"
#include "files.h"
#include "scratch_root.h"
#include "vrf/node_registry.h"

namespace {

/// The work of one start-up: its shell commands, and how many files it replaces.
struct start_up_work {
    std::vector<std::string> commands;
    int replaced_files = 0;
};

bool recording = false;
start_up_work recorded;

}  // namespace

// The linker redirects the agent's calls of run_shell_command and rename here (--wrap).
extern "C" {
int __real__Z17run_shell_commandPKcRK13command_limiti(const char* command, const command_limit& limit, int output);
int __real_rename(const char* from, const char* to);

int __wrap__Z17run_shell_commandPKcRK13command_limiti(const char* command, const command_limit& limit, int output) {
    if (recording) {
        recorded.commands.emplace_back(command);
    }
    return __real__Z17run_shell_commandPKcRK13command_limiti(command, limit, output);
}

int __wrap_rename(const char* from, const char* to) {
    recorded.replaced_files += recording ? 1 : 0;
    return __real_rename(from, to);
}
}

namespace {

constexpr int vrf_count = 256;
constexpr int keyword_rounds = 25;
constexpr int start_rounds = 5;
constexpr char work_file[] = "/var/opt/start_up_work";

std::string vrf_name(int number) {
    return "vrf" + std::to_string(number);
}

std::string vrf_file(int number) {
    return paths::vrf_server_file_prefix + vrf_name(number);
}

/// Copies a file and renames the copy over it with as few system calls as possible.
void copy_and_rename(const std::string& file) {
    static const std::string copy = std::string(paths::configuration_directory) + "copy";
    static char content[65536];
    const int source = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const int output = open(copy.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    require(source >= 0 && output >= 0, "cannot open a file");
    ssize_t count = 0;
    while ((count = read(source, content, sizeof content)) > 0) {
        require(write(output, content, static_cast<size_t>(count)) == count, "cannot copy a file");
    }
    close(source);
    close(output);
    require(rename(copy.c_str(), file.c_str()) == 0, "cannot rename a file");
}

void copy_and_rename_all() {
    copy_and_rename(paths::server_file);
    for (int i = 0; i < vrf_count; i++) {
        copy_and_rename(vrf_file(i));
    }
}

void measure_keyword() {
    fill_parameter_tables();
    require(prepare_default_files() == 0, "cannot create the default files");
    write_initial_lines();
    const std::string content = read_file(paths::server_file);
    for (int i = 0; i < vrf_count; i++) {
        create_vrf_node(vrf_name(i).c_str());
        write_file(vrf_file(i), content);
    }
    const timed_pair times = measure_in_turns(
        keyword_rounds,
        [](int round) {
            const std::string value = std::to_string(100 + round);
            require(update_config_files_restart(event_set_value, "LoginGraceTime", value.c_str(), 1) == 0,
                    "the keyword cannot be written");
        },
        [](int) { copy_and_rename_all(); });
    require(read_file(vrf_file(0)).find("LoginGraceTime 124\n") != std::string::npos,
            "the keyword is missing from the file");
    print_row("one keyword through 256 VRF files", times.own * 1000, times.floor * 1000, "ms", goal::at_most, 1.5);
}

/// Runs `work` in a child process, because start-up is possible only once per process. Returns its duration in seconds.
double seconds_in_child(const std::function<double()>& work) {
    int ends[2];
    require(pipe(ends) == 0, "cannot create a pipe");
    const pid_t child = fork();
    if (child == 0) {
        const double seconds = work();
        require(write(ends[1], &seconds, sizeof seconds) == sizeof seconds, "cannot send the result");
        _exit(0);
    }
    close(ends[1]);
    double seconds = 0;
    require(read(ends[0], &seconds, sizeof seconds) == sizeof seconds, "the start-up failed");
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return seconds;
}

void start() {
    const start_up_status status = start_up();
    if (status != START_UP_DONE) {
        fprintf(stderr, "benchmark: start-up failed with status %d\n", status);
        for (const fake_platform::log_line& line : fake_platform::log_lines()) {
            fprintf(stderr, "  %s\n", line.text.c_str());
        }
        exit(1);
    }
}

void store_vrfs() {
    for (int i = 0; i < vrf_count; i++) {
        fake_platform::store(fake_platform::set_tuple(paths::server_tree + ("sshd/vrf/" + vrf_name(i)), "%d%S%S",
                                                      {std::nullopt, std::nullopt, std::nullopt}));
        scratch_root::add_namespace_file("vrf-" + vrf_name(i));
    }
}

/// As on a freshly booted node: no VRF has a file or a unit.
void forget_vrfs() {
    for (int i = 0; i < vrf_count; i++) {
        remove_path(vrf_file(i));
        remove_path(paths::service_unit_prefix + vrf_name(i) + ".service");
        remove_path(paths::environment_file_prefix + vrf_name(i) + ".conf");
    }
}

double start_once() {
    forget_vrfs();
    store_vrfs();
    return seconds_of([] { start(); });
}

/// Records a start-up in a child, which returns the record in a file.
start_up_work record_start_up() {
    const pid_t child = fork();
    if (child == 0) {
        store_vrfs();
        recording = true;
        start();
        std::string record;
        for (const std::string& command : recorded.commands) {
            record += command + '\n';
        }
        write_file(work_file, std::to_string(recorded.replaced_files) + '\n' + record);
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    std::vector<std::string> lines = file_lines(work_file);
    require(!lines.empty(), "the start-up left no record");
    start_up_work work = {{lines.begin() + 1, lines.end()}, atoi(lines[0].c_str())};
    return work;
}

/// Only the same commands and the same number of file replacements.
double repeat(const start_up_work& work) {
    return seconds_of([&work] {
        for (const std::string& command : work.commands) {
            require(system((command + " >/dev/null").c_str()) != -1, "cannot run a command");
        }
        for (int i = 0; i < work.replaced_files; i++) {
            copy_and_rename(paths::server_file);
        }
    });
}

void measure_start_up() {
    const start_up_work work = record_start_up();
    require(work.commands.size() >= vrf_count && work.replaced_files >= vrf_count, "the record is incomplete");
    std::vector<double> own;
    std::vector<double> floor;
    for (int round = 0; round < start_rounds; round++) {
        floor.push_back(seconds_in_child([&work] { return repeat(work); }));
        own.push_back(seconds_in_child(start_once));
    }
    print_row("start-up to ready, 256 VRFs stored", best_of(own) * 1000, best_of(floor) * 1000, "ms", goal::at_most,
              1.3);
}

void measure_empty_start() {
    std::vector<double> processor_time;
    for (int i = 0; i < start_rounds; i++) {
        processor_time.push_back(seconds_in_child([] {
            const std::clock_t before = std::clock();
            start();
            return static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC;
        }));
    }
    print_row("start-up with nothing stored, own processor time", best_of(processor_time) * 1000, 0, "ms",
              goal::at_most, 100);
}

}  // namespace

int main() {
    scratch_root::enter({.readable = {}, .writable = {PROJECT_BINARY_DIR}});
    agent_harness::set_up();
    write_file(paths::datastore_library, "");
    write_file(paths::server_file, "");
    measure_empty_start();
    measure_start_up();
    measure_keyword();
    return 0;
}
