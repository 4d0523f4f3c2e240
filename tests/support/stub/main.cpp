/// A stub of systemctl, ip, nft and others: logs its command line and follows the rules.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "rules.h"

using stub_commands::rule;
using stub_commands::rule_table;

namespace {

constexpr size_t line_size = 8192;

void append(char* line, size_t& length, const char* text) {
    for (; *text != '\0' && length < line_size - 2; text++) {
        line[length++] = *text == '\n' ? ' ' : *text;
    }
}

const char* base_name(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

/// Written with one call, so that the lines of concurrent commands do not mix.
void write_log(char* line, size_t length) {
    const int fd = open(stub_commands::log_file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    line[length] = '\n';
    if (fd < 0 || write(fd, line, length + 1) != static_cast<ssize_t>(length + 1)) {
        static constexpr char message[] = "stub command: cannot write its log\n";
        _exit(write(STDERR_FILENO, message, sizeof message - 1) < 0 ? 126 : 127);
    }
    close(fd);
    line[length] = '\0';
}

rule_table* map_rules() {
    const int fd = open(stub_commands::rules_file, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(rule_table), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return memory != MAP_FAILED ? static_cast<rule_table*>(memory) : nullptr;
}

bool take_one(std::atomic<uint32_t>& left) {
    uint32_t now = left.load();
    while (now != 0 && now != stub_commands::endless && !left.compare_exchange_weak(now, now - 1)) {
    }
    return now != 0;
}

bool names(const rule& candidate, const char* line) {
    const size_t length = strlen(candidate.command);
    return strncmp(candidate.command, line, length) == 0 && (line[length] == '\0' || line[length] == ' ');
}

bool holds(rule& candidate, const char* line) {
    return names(candidate, line) && !take_one(candidate.skip) && take_one(candidate.times);
}

void copy_to_output(const char* file) {
    const int fd = open(file, O_RDONLY | O_CLOEXEC);
    char buffer[4096];
    for (ssize_t size; fd >= 0 && (size = read(fd, buffer, sizeof buffer)) > 0;) {
        if (write(STDOUT_FILENO, buffer, static_cast<size_t>(size)) != size) {
            break;
        }
    }
}

void wait_for(uint32_t milliseconds) {
    struct timespec time = {static_cast<time_t>(milliseconds / 1000),
                            static_cast<long>(milliseconds % 1000) * 1000000L};
    nanosleep(&time, nullptr);
}

/// The combination of all matching rules: a later one overrides the parts of an earlier one that it sets.
int run_rules(rule_table& table, const char* line) {
    int status = 0;
    const char* output = nullptr;
    const char* hook = nullptr;
    uint32_t delay = 0;
    const uint32_t count = table.count.load();
    for (uint32_t i = 0; i < count; i++) {
        rule& candidate = table.rules[i];
        if (!holds(candidate, line)) {
            continue;
        }
        status = candidate.has_status != 0 ? candidate.status : status;
        output = candidate.output[0] != '\0' ? candidate.output : output;
        hook = candidate.hook[0] != '\0' ? candidate.hook : hook;
        delay = candidate.delay_ms != 0 ? candidate.delay_ms : delay;
    }
    if (delay != 0) {
        wait_for(delay);
    }
    if (hook != nullptr) {
        setenv("STUB_COMMAND_LINE", line, 1);
        if (system(hook) != 0 && status == 0) {
            status = 1;
        }
    }
    if (output != nullptr) {
        copy_to_output(output);
    }
    return status;
}

// --- The servers' units ----------------------------------------------------------------------------------------------

// The stub of systemctl keeps one file per unit, so that it can show the states of the servers' units.

constexpr char unit_prefix[] = "sshd_service_";
constexpr size_t path_size = 512;

void unit_file(char (&path)[path_size], const char* unit) {
    snprintf(path, sizeof path, "%s/%s", stub_commands::units_directory, unit);
}

unsigned long long microseconds_now() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000ULL + now.tv_nsec / 1000;
}

bool refuses_to_start(const char* unit) {
    char path[path_size];
    snprintf(path, sizeof path, "%s/%s", stub_commands::failing_units_directory, unit);
    return access(path, F_OK) == 0;
}

/// Returns the exit status of systemctl for the unit.
int record_unit(const char* verb, const char* unit) {
    char path[path_size];
    unit_file(path, unit);
    const bool starts = strcmp(verb, "restart") == 0 || strcmp(verb, "start") == 0;
    if (starts && refuses_to_start(unit)) {
        unlink(path);
        return 1;
    }
    if (starts) {
        mkdir(stub_commands::units_directory, 0777);
        FILE* file = fopen(path, "we");
        if (file != nullptr) {
            fprintf(file, "%llu", microseconds_now());
            fclose(file);
        }
    } else if (strcmp(verb, "stop") == 0) {
        unlink(path);
    }
    return 0;
}

using unit_form = const char*;
constexpr unit_form properties_form =
    "Id=%s.service\nActiveState=active\nMainPID=0\nExecMainStartTimestampMonotonic=%llu\n\n";
constexpr unit_form list_form = "%s.service loaded active running server %llu\n";

void show_unit(const char* unit, unit_form form) {
    char path[path_size];
    unit_file(path, unit);
    unsigned long long started = 0;
    FILE* file = fopen(path, "re");
    if (file != nullptr && fscanf(file, "%llu", &started) == 1) {
        printf(form, unit, started);
    }
    if (file != nullptr) {
        fclose(file);
    }
}

void show_units(unit_form form) {
    DIR* directory = opendir(stub_commands::units_directory);
    while (const dirent* entry = directory != nullptr ? readdir(directory) : nullptr) {
        if (strncmp(entry->d_name, unit_prefix, sizeof unit_prefix - 1) == 0) {
            show_unit(entry->d_name, form);
        }
    }
    if (directory != nullptr) {
        closedir(directory);
    }
    fflush(stdout);
}

/// Changes the states of the servers' units like systemctl, after a successful command. A unit that does not start does not
/// prevent the others from starting. Returns the exit status.
int act_on_units(int argc, char** argv) {
    int status = 0;
    for (int i = 2; i < argc; i++) {
        if (strncmp(argv[i], unit_prefix, sizeof unit_prefix - 1) == 0 && record_unit(argv[1], argv[i]) != 0) {
            status = 1;
        }
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    static char line[line_size];
    size_t length = 0;
    for (int i = 0; i < argc; i++) {
        append(line, length, i == 0 ? base_name(argv[0]) : " ");
        append(line, length, i == 0 ? "" : argv[i]);
    }
    write_log(line, length);
    rule_table* table = map_rules();
    const bool is_systemctl = strcmp(base_name(argv[0]), "systemctl") == 0;
    int status = table != nullptr ? run_rules(*table, line) : 0;
    if (is_systemctl && status == 0 && argc >= 2 && strcmp(argv[1], "show") == 0) {
        show_units(properties_form);
    } else if (is_systemctl && status == 0 && argc >= 2 && strcmp(argv[1], "list-units") == 0) {
        show_units(list_form);
    }
    if (is_systemctl && status == 0) {
        status = act_on_units(argc, argv);
    }
    if (status < 0) {
        signal(-status, SIG_DFL);
        raise(-status);
    }
    return status;
}
