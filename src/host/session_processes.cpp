#include "host/session_processes.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "core/paths.h"
#include "core/text.h"

namespace {

constexpr size_t file_size = 4096;
constexpr char server_program[] = "/sshd";

/// Reads the beginning of a file of a process, NUL-terminated. Returns false if there is none.
bool read_process_file(int32_t pid, const char* name, char (&text)[file_size]) {
    char path[PATH_MAX];
    format_text(path, sizeof path, "%s%d/%s", paths::processes, pid, name);
    FILE* file = std::fopen(path, "re");
    if (file == nullptr) {
        return false;
    }
    text[std::fread(text, 1, sizeof text - 1, file)] = '\0';
    std::fclose(file);
    return true;
}

/// The parent's process id; 0 if the process does not exist.
int32_t parent_of(int32_t pid) {
    char text[file_size];
    if (!read_process_file(pid, "stat", text)) {
        return 0;
    }
    // The program's name, in parentheses, may contain anything.
    const char* name_end = std::strrchr(text, ')');
    int32_t parent = 0;
    return name_end != nullptr && std::sscanf(name_end, ") %*c %d", &parent) == 1 ? parent : 0;
}

bool runs_as_root(int32_t pid) {
    char text[file_size];
    if (!read_process_file(pid, "status", text)) {
        return false;
    }
    const char* users = std::strstr(text, "\nUid:");
    unsigned real = 1;
    return users != nullptr && std::sscanf(users, "\nUid: %u", &real) == 1 && real == 0;
}

/// The program that the process runs; empty if that cannot be determined.
void program_of(int32_t pid, char (&program)[PATH_MAX]) {
    char path[PATH_MAX];
    format_text(path, sizeof path, "%s%d/exe", paths::processes, pid);
    const ssize_t length = readlink(path, program, sizeof program - 1);
    program[length > 0 ? length : 0] = '\0';
}

/// A server forks a process for each session, which remains sshd. It runs as the user, and its parent as root; a session
/// of root has no such parent once the server has stopped. Nobody but root can be either.
bool is_session_process_of_server(int32_t pid) {
    char program[PATH_MAX];
    program_of(pid, program);
    const char* name = std::strrchr(program, '/');
    if (name == nullptr || !begins_with(name, server_program)) {
        return false;
    }
    const int32_t parent = parent_of(pid);
    char parents_program[PATH_MAX];
    program_of(parent, parents_program);
    return runs_as_root(pid) || (parent > 1 && runs_as_root(parent) && std::strcmp(program, parents_program) == 0);
}

}  // namespace

bool is_session_process(int32_t pid) {
    const int before = errno;
    const int32_t parent = parent_of(pid);
    const bool result = parent > 1 && is_session_process_of_server(parent);
    errno = before;
    return result;
}
