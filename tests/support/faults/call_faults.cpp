#include "call_faults.h"

#include <errno.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>

#include "diversion.h"

namespace call_faults {
namespace {

struct call_row {
    const char* name;
    const char* group;
    bool changes;
};

constexpr call_row rows[] = {
#define DIVERTED(call, group, changes) {#call, group, changes != 0},
#include "diverted_calls.def"
#undef DIVERTED
};

struct fault {
    std::string call;
    std::string object;
    uint32_t skip;
    uint32_t times;
    verdict consequence;
};

struct fault_state {
    std::vector<fault> faults;
    std::vector<std::string> recorded;
    bool recording = false;
    bool skip_sleeping = false;
    uint64_t slept = 0;
    uint32_t longest_command = UINT32_MAX;
    uint32_t changes = 0;
    uint32_t kill_at = 0;  ///< 0: never
    moment kill_when = moment::before;
    bool active = false;  ///< whether anything besides counting is configured
};

uint32_t counts[diverted_call_count];
fault_state state;
std::function<void(const std::string&)> command_observer;
std::function<void(unsigned int)> sleep_observer;

/// Set while a call is examined, so that nested calls are not examined.
thread_local bool inside = false;

class inside_mark {
  public:
    inside_mark() : kept_errno_(errno) { inside = true; }
    ~inside_mark() {
        inside = false;
        errno = kept_errno_;
    }
    inside_mark(const inside_mark&) = delete;
    inside_mark& operator=(const inside_mark&) = delete;

  private:
    int kept_errno_;
};

void update_active() {
    state.active = !state.faults.empty() || state.recording || state.kill_at != 0;
}

bool is_command(diverted_call call) {
    return std::string_view(rows[call].group) == "command";
}

bool names(const fault& fault, diverted_call call) {
    return fault.call == rows[call].name || (rows[call].group[0] != '\0' && fault.call == rows[call].group);
}

bool concerns(const fault& fault, diverted_call call, const std::string& object) {
    if (fault.object.empty()) {
        return true;
    }
    return is_command(call) ? object.compare(0, fault.object.size(), fault.object) == 0 : object == fault.object;
}

/// The first matching fault decides; all faults that concern the call count it.
verdict judge(diverted_call call, const object_name& object) {
    verdict found;
    for (fault& candidate : state.faults) {
        if (candidate.times == 0 || !names(candidate, call) ||
            !concerns(candidate, call, candidate.object.empty() ? std::string() : object())) {
            continue;
        }
        if (candidate.skip > 0) {
            candidate.skip--;
        } else if (found.action == action::go_on) {
            found = candidate.consequence;
            candidate.times -= candidate.times != always;
        }
    }
    return found;
}

void record(diverted_call call, const object_name& object) {
    if (state.recording && std::string_view(rows[call].group) != "allocation") {
        state.recorded.push_back(std::string(rows[call].name) + '(' + object() + ')');
    }
}

void kill_if_due(moment when) {
    if (state.kill_at != 0 && state.changes == state.kill_at && state.kill_when == when) {
        raise(SIGKILL);
    }
}

void add_fault(std::string_view call, std::string_view object, uint32_t times, uint32_t from_call,
               const verdict& consequence) {
    bool known = false;
    for (const call_row& row : rows) {
        known = known || call == row.name || (row.group[0] != '\0' && call == row.group);
    }
    if (!known) {
        fprintf(stderr, "call faults: no call or group \"%s\" is diverted\n", std::string(call).c_str());
        abort();
    }
    state.faults.push_back({std::string(call), std::string(object), from_call - 1, times, consequence});
    update_active();
}

[[noreturn]] void work_until_killed(uint32_t nth, moment when, const std::function<void()>& work) {
    state.changes = 0;
    state.kill_at = nth;
    state.kill_when = when;
    update_active();
    work();
    _exit(EXIT_SUCCESS);
}

}  // namespace

verdict before(diverted_call call, const object_name& object) {
    if (inside) {
        return {};
    }
    counts[call]++;
    state.changes += rows[call].changes;
    if (!state.active) {
        return {};
    }
    const inside_mark mark;
    if (rows[call].changes) {
        kill_if_due(moment::before);
    }
    record(call, object);
    return judge(call, object);
}

void after(diverted_call call) {
    if (state.active && !inside && rows[call].changes) {
        kill_if_due(moment::after);
    }
}

std::string file_of(int fd) {
    char target[PATH_MAX];
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target);
    return std::string(target, length > 0 ? static_cast<size_t>(length) : 0);
}

std::string file_of(FILE* file) {
    return file != nullptr ? file_of(fileno(file)) : "";
}

bool sleep_observed(unsigned int seconds) {
    if (!sleep_observer) {
        return false;
    }
    sleep_observer(seconds);
    return true;
}

bool sleep_skipped(uint64_t milliseconds) {
    state.slept += milliseconds;
    return state.skip_sleeping;
}

void announce(const char* command) {
    if (command_observer && !inside) {
        const inside_mark mark;
        command_observer(command);
    }
}

uint32_t longest_command() {
    return state.longest_command;
}

void fail_call(std::string_view call, int error, uint32_t times, uint32_t from_call, std::string_view object) {
    add_fault(call, object, times, from_call, {action::fail, error, 0, 0});
}

void cut_call(std::string_view call, size_t bytes, uint32_t times, uint32_t from_call, std::string_view object) {
    add_fault(call, object, times, from_call, {action::cut, ENOSPC, bytes, 0});
}

void answer_command(std::string_view command, int result, int error, uint32_t times, uint32_t from_call) {
    add_fault("command", command, times, from_call, {action::answer, error, 0, result});
}

void skip_sleeping() {
    state.skip_sleeping = true;
}

void limit_commands(uint32_t milliseconds) {
    state.longest_command = milliseconds;
}

uint64_t slept_milliseconds() {
    return state.slept;
}

void clear() {
    state = fault_state();
    for (uint32_t& count : counts) {
        count = 0;
    }
}

uint32_t count_calls(std::string_view call) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < diverted_call_count; i++) {
        sum += call == rows[i].name || (rows[i].group[0] != '\0' && call == rows[i].group) ? counts[i] : 0;
    }
    return sum;
}

uint32_t count_changes() {
    return state.changes;
}

void start_recording() {
    state.recording = true;
    update_active();
}

std::vector<std::string> recorded_calls() {
    return state.recorded;
}

void observe_commands(std::function<void(const std::string&)> observer) {
    command_observer = std::move(observer);
}

void observe_sleeps(std::function<void(unsigned int)> observer) {
    sleep_observer = std::move(observer);
}

bool run_killed(uint32_t nth, moment when, const std::function<void()>& work) {
    fflush(stdout);
    fflush(stderr);
    const pid_t child = fork();
    if (child == 0) {
        work_until_killed(nth, when, work);
    }
    int status = 0;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    if (child < 0 || (!killed && status != 0)) {
        fprintf(stderr, "call faults: the work before its kill point %u ended with wait status 0x%x\n", nth, status);
        abort();
    }
    return killed;
}

uint32_t for_each_kill_point(const std::function<void()>& prepare, const std::function<void()>& work,
                             const std::function<void()>& check) {
    for (uint32_t nth = 1;; nth++) {
        for (const moment when : {moment::before, moment::after}) {
            prepare();
            const bool killed = run_killed(nth, when, work);
            check();
            if (!killed) {
                return nth - 1;
            }
        }
    }
}

}  // namespace call_faults
