#include "run_separately.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct child_run {
    bool is_child;
    int status;
    std::string output;
};

std::string read_all(int fd) {
    std::string text;
    char buffer[4096];
    for (ssize_t size; (size = read(fd, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<size_t>(size));
    }
    return text;
}

/// Returns twice, like fork(): in the child, whose output goes to the parent, and in the parent when the child has ended.
/// Re-executing the program instead would take as long as an average test.
child_run split() {
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) {
        return {false, -1, "cannot create a pipe\n"};
    }
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(channel[1], STDOUT_FILENO);
        dup2(channel[1], STDERR_FILENO);
        close(channel[0]);
        close(channel[1]);
        return {true, 0, ""};
    }
    close(channel[1]);
    child_run result = {false, -1, child < 0 ? "cannot create a process\n" : read_all(channel[0])};
    close(channel[0]);
    if (child > 0) {
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

/// The names of the selected tests.
std::vector<std::string> selected_tests() {
    const child_run list = split();
    if (list.is_child) {
        testing::GTEST_FLAG(list_tests) = true;
        exit(RUN_ALL_TESTS());
    }
    return test_names(list.output);
}

/// This process's share of the tests, as defined by GoogleTest's environment variables.
std::vector<std::string> of_this_shard(const std::vector<std::string>& names) {
    const char* total = getenv("GTEST_TOTAL_SHARDS");
    const char* index = getenv("GTEST_SHARD_INDEX");
    if (total == nullptr || index == nullptr) {
        return names;
    }
    const size_t step = strtoul(total, nullptr, 10);
    std::vector<std::string> part;
    for (size_t i = strtoul(index, nullptr, 10); step > 0 && i < names.size(); i += step) {
        part.push_back(names[i]);
    }
    unsetenv("GTEST_TOTAL_SHARDS");
    unsetenv("GTEST_SHARD_INDEX");
    return part;
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

std::optional<int> run_separately() {
    const std::string filter = testing::GTEST_FLAG(filter);
    if (filter.find_first_of("*?:-") == std::string::npos) {
        return std::nullopt;
    }
    const std::vector<std::string> names = of_this_shard(selected_tests());
    std::vector<std::string> failed;
    size_t count = 0;
    for (const std::string& name : names) {
        if (testing::GTEST_FLAG(fail_fast) && !failed.empty()) {
            break;
        }
        count++;
        printf("[ RUN      ] %s\n", name.c_str());
        const auto begun = std::chrono::steady_clock::now();
        const child_run result = split();
        if (result.is_child) {
            testing::GTEST_FLAG(filter) = name;
            testing::GTEST_FLAG(also_run_disabled_tests) = true;
            return std::nullopt;
        }
        if (!passed(result)) {
            failed.push_back(name);
            fputs(result.output.c_str(), stdout);
        }
        const auto taken =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begun);
        printf("%s %s (%lld ms)\n", passed(result) ? "[       OK ]" : "[  FAILED  ]", name.c_str(),
               static_cast<long long>(taken.count()));
    }
    return report(count, failed);
}
