#include "run_separately.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

struct child_run {
    int status;
    std::string output;
};

child_run run(std::vector<std::string> arguments) {
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) {
        return {-1, "cannot make a pipe\n"};
    }
    std::vector<char*> vector;
    for (std::string& argument : arguments) {
        vector.push_back(argument.data());
    }
    vector.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, channel[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, channel[1], STDERR_FILENO);
    pid_t child = -1;
    const int error = posix_spawn(&child, "/proc/self/exe", &actions, nullptr, vector.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(channel[1]);
    child_run result = {-1, error == 0 ? "" : "cannot run this program again\n"};
    char buffer[4096];
    for (ssize_t size; error == 0 && (size = read(channel[0], buffer, sizeof buffer)) > 0;) {
        result.output.append(buffer, static_cast<size_t>(size));
    }
    close(channel[0]);
    if (error == 0) {
        waitpid(child, &result.status, 0);
    }
    return result;
}

/// The names in the output of --gtest_list_tests: a line per suite, ending with '.', and an indented line per test.
std::vector<std::string> test_names(const std::string& list) {
    std::vector<std::string> names;
    std::string suite;
    for (size_t begin = 0, end = 0; (end = list.find('\n', begin)) != std::string::npos; begin = end + 1) {
        std::string line = list.substr(begin, end - begin);
        line.resize(line.find('#') < line.size() ? line.find('#') : line.size());
        line.resize(line.find_last_not_of(' ') + 1);
        if (line.compare(0, 2, "  ") == 0) {
            names.push_back(suite + line.substr(2));
        } else if (!line.empty() && line.back() == '.') {
            suite = line;
        }
    }
    return names;
}

bool passed(const child_run& run) {
    return WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0;
}

int report(size_t count, const std::vector<std::string>& failed) {
    printf("[==========] %zu tests ran, each in a process of its own.\n[  PASSED  ] %zu tests.\n", count,
           count - failed.size());
    for (const std::string& name : failed) {
        printf("[  FAILED  ] %s\n", name.c_str());
    }
    return failed.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

std::optional<int> run_separately(char** argv) {
    const std::string filter = testing::GTEST_FLAG(filter);
    if (filter.find_first_of("*?:-") == std::string::npos) {
        return std::nullopt;
    }
    const std::vector<std::string> names =
        test_names(run({argv[0], "--gtest_list_tests", "--gtest_filter=" + filter}).output);
    if (names.size() < 2) {
        return std::nullopt;
    }
    std::vector<std::string> failed;
    for (const std::string& name : names) {
        printf("[ RUN      ] %s\n", name.c_str());
        fflush(stdout);
        const child_run result = run({argv[0], "--gtest_filter=" + name, "--gtest_also_run_disabled_tests"});
        if (!passed(result)) {
            failed.push_back(name);
            fputs(result.output.c_str(), stdout);
        }
        printf("%s %s\n", passed(result) ? "[       OK ]" : "[  FAILED  ]", name.c_str());
    }
    return report(names.size(), failed);
}
