#include "linux/control/failure_reading.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "common/child_process.h"
#include "common/file_descriptor.h"
#include "common/files.h"
#include "common/number.h"
#include "linux/control/login_events.h"

namespace {

/// How long a call waits for the events. For the latest of a small journal that is enough.
constexpr int wait_milliseconds = 20;
/// The journal's program puts no more than this into a field, and ten times as many events would still fit.
constexpr size_t output_bytes_max = size_t{16} * 1024 * 1024;

struct running_reading {
    std::string program = "/usr/bin/journalctl";
    unsigned patience = 10;
    uint64_t number = 0;  ///< of the latest reading
    failure_query query;
    pid_t child = -1;  ///< while it runs, or has not been asked for
    int process = -1;  ///< of the child
    int output = -1;
};

running_reading reading;

/// Ends the child if it still runs, and forgets its output. Returns its wait status.
int finish_child(bool by_force) {
    if (by_force) {
        kill(reading.child, SIGKILL);
    }
    const int status = child_process_reap(reading.child);
    reading.child = -1;
    close(std::exchange(reading.process, -1));
    return status;
}

void forget_output() {
    if (reading.output >= 0) {
        close(std::exchange(reading.output, -1));
    }
}

bool child_runs(int milliseconds) {
    pollfd ended = {.fd = reading.process, .events = POLLIN, .revents = 0};
    return poll(&ended, 1, milliseconds) == 0;
}

/// Only root's entries: any user can write an entry with any fields, but not with the number of another user.
std::vector<std::string> command_for(const failure_query& query) {
    std::vector<std::string> words = {reading.program,
                                      "--quiet",
                                      "--no-pager",
                                      "--output=json",
                                      "--lines=" + std::to_string(query.lines),
                                      "_UID=0",
                                      std::string("MESSAGE_ID=") + login_event_failed.message_id};
    if (!query.vrf.empty()) {
        words.push_back(LOGIN_EVENT_VRF "=" + query.vrf);
    }
    return words;
}

/// Between fork and exec, only what is safe there. The kernel ends the program when its time is over.
[[noreturn]] void become_program(const std::vector<char*>& words, int output, pid_t parent) {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    const rlimit size = {.rlim_cur = output_bytes_max, .rlim_max = output_bytes_max};
    if (null >= 0 && dup2(null, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 &&
        dup2(null, STDERR_FILENO) >= 0 && setrlimit(RLIMIT_FSIZE, &size) == 0 && child_process_prepare(parent)) {
        alarm(reading.patience);
        execv(words[0], words.data());
    }
    _exit(EXIT_FAILURE);
}

/// Returns 0 or an errno value.
int start_child(const failure_query& query) {
    std::vector<std::string> texts = command_for(query);
    std::vector<char*> words;
    words.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        words.push_back(text.data());
    }
    words.push_back(nullptr);
    file_descriptor output(memfd_create("failures", MFD_CLOEXEC));
    if (output.get() < 0) {
        return errno;
    }
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        return errno;
    }
    if (child == 0) {
        become_program(words, output.get(), parent);
    }
    reading.child = child;
    reading.process = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    if (reading.process < 0) {
        const int error = errno;
        finish_child(true);
        return error;
    }
    reading.output = output.release();
    reading.query = query;
    ++reading.number;
    return 0;
}

login_event_fields fields_of(const control_json& entry) {
    login_event_fields fields;
    for (const auto& [name, value] : entry.items()) {
        // Binary values are arrays; the servers send none.
        if (value.is_string()) {
            fields.emplace(name, value.get<std::string>());
        }
    }
    return fields;
}

void add_event(control_json& events, std::string_view line) {
    std::string error;
    const std::optional<control_json> entry = control_json_parse(line, error);
    if (!entry || !entry->is_object()) {
        return;
    }
    const login_event_fields fields = fields_of(*entry);
    const auto time = fields.find("__REALTIME_TIMESTAMP");
    const auto microseconds = time == fields.end() ? std::nullopt : number_parse<uint64_t>(time->second);
    events.push_back(login_event_json(fields, microseconds.value_or(0)));
}

control_json events_in(std::string_view text) {
    control_json events = control_json::array();
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        add_event(events, line);
        text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
    return events;
}

failure_reading failed_reading(const std::string& problem) {
    return {.number = reading.number, .is_complete = true, .problem = problem, .events = {}};
}

/// Takes the result of the child, which has ended.
failure_reading take_result() {
    const int status = finish_child(false);
    std::string text;
    lseek(reading.output, 0, SEEK_SET);
    const platform_status read = file_read_to_end(reading.output, output_bytes_max, text);
    forget_output();
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
        return failed_reading("journalctl did not end within " + std::to_string(reading.patience) + " seconds");
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || read != PLATFORM_OK) {
        return failed_reading("journalctl has failed");
    }
    return {.number = reading.number, .is_complete = true, .problem = {}, .events = events_in(text)};
}

failure_reading unfinished(uint64_t number) {
    return {.number = number, .is_complete = false, .problem = {}, .events = {}};
}

}  // namespace

failure_reading failure_reading_begin(const failure_query& query) {
    if (reading.child >= 0 && child_runs(0)) {
        return unfinished(reading.query == query ? reading.number : 0);
    }
    if (reading.child >= 0) {
        // Whoever asked for it has gone away, or asks for it later.
        finish_child(false);
        forget_output();
    }
    if (const int error = start_child(query); error != 0) {
        return failed_reading(std::string("journalctl could not be started: ") + strerror(error));
    }
    return child_runs(wait_milliseconds) ? unfinished(reading.number) : take_result();
}

failure_reading failure_reading_follow(const failure_query& query, uint64_t number) {
    if (number == 0 || number != reading.number || reading.child < 0 || reading.query != query) {
        return failure_reading_begin(query);
    }
    return child_runs(0) ? unfinished(number) : take_result();
}

void failure_reading_reset(const std::string& program, unsigned patience) {
    if (reading.child >= 0) {
        finish_child(true);
    }
    forget_output();
    const uint64_t number = reading.number;
    reading = {};
    reading.program = program;
    reading.patience = patience;
    reading.number = number;
}
