#include "openssh/run_programs.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "common/text.h"
#include "openssh/text.h"

namespace openssh {

namespace {

using steady = std::chrono::steady_clock;

struct running_program {
    pid_t pid = -1;
    /// The reading ends of the pipes for standard output and standard error; -1 once closed.
    int pipes[2] = {-1, -1};
    program_result result;

    bool is_talking() const { return pipes[0] >= 0 || pipes[1] >= 0; }
    std::string& text_of(int pipe_index) { return pipe_index == 0 ? result.output : result.errors; }
};

void close_pipe(int& fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

int spawn(const std::vector<std::string>& words, const int (&writing_ends)[2], pid_t* pid) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    int error = posix_spawn_file_actions_init(&actions);
    if (error != 0) {
        return error;
    }
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, writing_ends[0], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, writing_ends[1], STDERR_FILENO);
    error = posix_spawn(pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

running_program start(const std::vector<std::string>& words) {
    running_program program;
    int writing_ends[2] = {-1, -1};
    int error = 0;
    for (int i = 0; i < 2 && error == 0; ++i) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            error = errno;
        } else {
            program.pipes[i] = ends[0];
            writing_ends[i] = ends[1];
        }
    }
    if (error == 0) {
        error = spawn(words, writing_ends, &program.pid);
    }
    close_pipe(writing_ends[0]);
    close_pipe(writing_ends[1]);
    if (error != 0) {
        close_pipe(program.pipes[0]);
        close_pipe(program.pipes[1]);
        program.pid = -1;
        program.result.failure = text_format("cannot be started: %s", std::strerror(error));
    }
    return program;
}

/// Excess output is read and discarded, so that the program can continue.
void take_output(running_program& program, int pipe_index) {
    char buffer[4096];
    const ssize_t length = read(program.pipes[pipe_index], buffer, sizeof buffer);
    if (length > 0) {
        std::string& text = program.text_of(pipe_index);
        text.append(buffer, std::min(static_cast<size_t>(length), most_program_output - text.size()));
    } else if (length == 0 || errno != EINTR) {
        close_pipe(program.pipes[pipe_index]);
    }
}

/// Reads until every pipe is closed or the time is up.
void collect(std::vector<running_program>& programs, steady::time_point end) {
    for (;;) {
        std::vector<pollfd> waited;
        std::vector<std::pair<running_program*, int>> owners;
        for (running_program& program : programs) {
            for (int i = 0; i < 2; ++i) {
                if (program.pipes[i] >= 0) {
                    waited.push_back({program.pipes[i], POLLIN, 0});
                    owners.emplace_back(&program, i);
                }
            }
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady::now()).count();
        if (waited.empty() || left <= 0) {
            return;
        }
        if (poll(waited.data(), waited.size(), static_cast<int>(left)) < 0 && errno != EINTR) {
            return;
        }
        for (size_t i = 0; i < waited.size(); ++i) {
            if (waited[i].revents != 0) {
                take_output(*owners[i].first, owners[i].second);
            }
        }
    }
}

void finish(running_program& program) {
    if (program.pid < 0) {
        return;
    }
    const bool overdue = program.is_talking();
    if (overdue) {
        kill(program.pid, SIGKILL);
        close_pipe(program.pipes[0]);
        close_pipe(program.pipes[1]);
    }
    int status = 0;
    pid_t ended = 0;
    do {
        ended = waitpid(program.pid, &status, 0);
    } while (ended < 0 && errno == EINTR);
    if (overdue) {
        program.result.failure = "timed out and was killed";
    } else if (ended < 0) {
        program.result.failure = text_format("cannot be waited for: %s", std::strerror(errno));
    } else if (WIFSIGNALED(status)) {
        program.result.failure = text_format("was killed by signal %d", WTERMSIG(status));
    } else {
        program.result.status = WEXITSTATUS(status);
    }
}

}  // namespace

std::vector<program_result> run_programs(const std::vector<std::vector<std::string>>& programs,
                                         std::chrono::milliseconds limit) {
    std::vector<running_program> running;
    running.reserve(programs.size());
    for (const auto& words : programs) {
        running.push_back(start(words));
    }
    collect(running, steady::now() + limit);
    std::vector<program_result> results;
    results.reserve(running.size());
    for (running_program& program : running) {
        finish(program);
        results.push_back(std::move(program.result));
    }
    return results;
}

}  // namespace openssh
