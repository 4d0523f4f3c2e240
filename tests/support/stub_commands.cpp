#include "stub_commands.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>

#include "scratch_root.h"
#include "stub/rules.h"

namespace fs = std::filesystem;

namespace stub_commands {
namespace {

constexpr char directory[] = "/stub_commands";
constexpr char program[] = "/stub_commands/program";
constexpr const char* command_directories[] = {"/usr/bin/", "/usr/sbin/"};

rule_table* rules = nullptr;
uint32_t outputs = 0;

[[noreturn]] void give_up(const char* step, const std::string& object) {
    fprintf(stderr, "stub commands: %s %s: %s\n", step, object.c_str(), strerror(errno));
    abort();
}

void map_rules() {
    std::ofstream(rules_file).close();
    std::error_code error;
    fs::resize_file(rules_file, sizeof(rule_table), error);
    std::FILE* file = std::fopen(rules_file, "r+");
    if (file == nullptr) {
        give_up("cannot open", rules_file);
    }
    void* memory = mmap(nullptr, sizeof(rule_table), PROT_READ | PROT_WRITE, MAP_SHARED, fileno(file), 0);
    std::fclose(file);
    if (memory == MAP_FAILED) {
        give_up("cannot map", rules_file);
    }
    rules = new (memory) rule_table{};
}

/// The stub program in the scratch root; commands are links to it.
void prepare() {
    if (rules != nullptr) {
        return;
    }
    if (!scratch_root::entered()) {
        errno = EPERM;
        give_up("not in a scratch root:", directory);
    }
    std::error_code error;
    fs::create_directories(directory, error);
    fs::permissions(directory, fs::perms::all, error);
    if (!fs::copy_file(STUB_COMMAND_PROGRAM, program, fs::copy_options::overwrite_existing, error)) {
        errno = error.value();
        give_up("cannot copy", STUB_COMMAND_PROGRAM);
    }
    map_rules();
}

void link_command(const std::string& path) {
    std::error_code error;
    fs::remove(path, error);
    fs::create_directories(fs::path(path).parent_path(), error);
    fs::create_symlink(program, path, error);
    if (error) {
        errno = error.value();
        give_up("cannot make", path);
    }
}

void copy_text(char* buffer, size_t size, std::string_view text, const char* what) {
    if (text.size() >= size) {
        errno = ENAMETOOLONG;
        give_up(what, std::string(text));
    }
    memcpy(buffer, text.data(), text.size());
    buffer[text.size()] = '\0';
}

/// A new rule, which takes effect when the caller has filled it and increases the count.
rule& new_rule(std::string_view command, uint32_t times, uint32_t from_call) {
    prepare();
    if (rules->count == rules_max) {
        errno = ENOSPC;
        give_up("too many rules:", std::string(command));
    }
    rule& fresh = rules->rules[rules->count];
    memset(static_cast<void*>(&fresh), 0, sizeof fresh);
    copy_text(fresh.command, sizeof fresh.command, command, "too long a command:");
    fresh.times = times;
    fresh.skip = from_call - 1;
    return fresh;
}

}  // namespace

void install() {
    for (const char* command : {"systemctl", "ip", "nft"}) {
        install_command(command);
    }
}

void install_command(const std::string& command) {
    prepare();
    if (command.find('/') != std::string::npos) {
        link_command(command);
        return;
    }
    for (const char* place : command_directories) {
        link_command(place + command);
    }
}

void remove_command(const std::string& command) {
    std::error_code error;
    if (command.find('/') != std::string::npos) {
        fs::remove(command, error);
        return;
    }
    for (const char* place : command_directories) {
        fs::remove(place + command, error);
    }
}

std::vector<std::string> log() {
    return log_of("");
}

std::vector<std::string> log_of(std::string_view command) {
    std::vector<std::string> lines;
    std::ifstream file(log_file);
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, command.size(), command) == 0) {
            lines.push_back(line);
        }
    }
    return lines;
}

void clear_log() {
    std::error_code error;
    fs::remove(log_file, error);
}

void fail(std::string_view command, int status, uint32_t times, uint32_t from_call) {
    rule& fresh = new_rule(command, times, from_call);
    fresh.has_status = 1;
    fresh.status = status;
    rules->count++;
}

void set_output(std::string_view command, std::string_view output, uint32_t times, uint32_t from_call) {
    rule& fresh = new_rule(command, times, from_call);
    const std::string file = std::string(directory) + "/output." + std::to_string(outputs++);
    std::ofstream(file) << output;
    copy_text(fresh.output, sizeof fresh.output, file, "too long a name:");
    rules->count++;
}

void set_hook(std::string_view command, std::string_view shell_command, uint32_t times, uint32_t from_call) {
    rule& fresh = new_rule(command, times, from_call);
    copy_text(fresh.hook, sizeof fresh.hook, shell_command, "too long a hook:");
    rules->count++;
}

void set_delay(std::string_view command, uint32_t milliseconds, uint32_t times, uint32_t from_call) {
    new_rule(command, times, from_call).delay_ms = milliseconds;
    rules->count++;
}

void fail_unit(const std::string& unit) {
    std::filesystem::create_directories(failing_units_directory);
    std::ofstream(std::string(failing_units_directory) + "/" + unit).put('\n');
}

void allow_unit(const std::string& unit) {
    std::filesystem::remove(std::string(failing_units_directory) + "/" + unit);
}

void clear_rules() {
    prepare();
    rules->count = 0;
}

}  // namespace stub_commands
