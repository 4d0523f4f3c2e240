#include "linux/control/session_ending.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/file_descriptor.h"
#include "common/files.h"
#include "common/number.h"
#include "platform/status.h"

namespace {

constexpr size_t text_max = 65536;

struct process_identity {
    pid_t parent = 0;
    pid_t group = 0;
    uint64_t start_time = 0;
};

/// Returns the word at `index` of those that follow the process's name in /proc/PID/stat.
std::string_view word_at(std::string_view text, int index) {
    for (; index > 0; --index) {
        const size_t end = text.find(' ');
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return text.substr(0, text.find(' '));
}

std::optional<process_identity> identity_of(pid_t pid) {
    constexpr int parent_index = 1;
    constexpr int group_index = 2;
    constexpr int start_time_index = 19;
    std::string text;
    if (file_read("/proc/" + std::to_string(pid) + "/stat", text_max, text) != PLATFORM_OK) {
        return std::nullopt;
    }
    // The name, in parentheses, may contain anything.
    const size_t name_end = text.rfind(") ");
    if (name_end == std::string::npos) {
        return std::nullopt;
    }
    const std::string_view words = std::string_view(text).substr(name_end + 2);
    const auto parent = number_parse<pid_t>(word_at(words, parent_index));
    const auto group = number_parse<pid_t>(word_at(words, group_index));
    const auto start_time = number_parse<uint64_t>(word_at(words, start_time_index));
    if (!parent || !group || !start_time) {
        return std::nullopt;
    }
    return process_identity{.parent = *parent, .group = *group, .start_time = *start_time};
}

std::vector<pid_t> children_of(pid_t pid) {
    const std::string number = std::to_string(pid);
    std::vector<pid_t> children;
    std::string text;
    if (file_read("/proc/" + number + "/task/" + number + "/children", text_max, text) == PLATFORM_OK) {
        for (std::string_view rest = text; !rest.empty();) {
            const std::string_view word = rest.substr(0, rest.find(' '));
            rest.remove_prefix(word.size() < rest.size() ? word.size() + 1 : rest.size());
            if (const auto child = number_parse<pid_t>(word)) {
                children.push_back(*child);
            }
        }
    }
    return children;
}

int open_process(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

void signal_process(int process, int number) {
    syscall(SYS_pidfd_send_signal, process, number, nullptr, 0);
}

bool is_alive(int process) {
    pollfd ended = {.fd = process, .events = POLLIN, .revents = 0};
    return poll(&ended, 1, 0) == 0;
}

/// Signals a child of the session, and a group that it leads. The process is opened before its parent is read, and known to
/// run after that, so it is not a later one with the same number. A group can only be signalled by number. It keeps the
/// number while its leader runs, and the kernel hands out all other numbers before it uses one again.
void end_child(pid_t parent, pid_t child, int number, bool groups_only) {
    const file_descriptor process(open_process(child));
    const std::optional<process_identity> identity = identity_of(child);
    if (process.get() < 0 || !identity || identity->parent != parent || !is_alive(process.get())) {
        return;
    }
    if (identity->group == child) {
        kill(-child, number);
    } else if (!groups_only) {
        signal_process(process.get(), number);
    }
}

/// sshd's unprivileged process is a child of the monitor, and a program of the session is a child of either that leads a
/// process group. Programs come first, because nobody could find them when sshd has ended.
void end_children(pid_t pid, int number) {
    const std::vector<pid_t> children = children_of(pid);
    for (const pid_t child : children) {
        for (const pid_t program : children_of(child)) {
            end_child(child, program, number, true);
        }
    }
    for (const pid_t child : children) {
        end_child(pid, child, number, false);
    }
}

}  // namespace

bool session_end(pid_t pid, uint64_t start_time, session_end_force force) {
    const file_descriptor process(open_process(pid));
    const std::optional<process_identity> identity = identity_of(pid);
    if (process.get() < 0 || !identity || identity->start_time != start_time || !is_alive(process.get())) {
        return false;
    }
    end_children(pid, force == session_end_force::ask ? SIGTERM : SIGKILL);
    if (force == session_end_force::ask) {
        signal_process(process.get(), SIGTERM);
    } else if (force == session_end_force::kill_all) {
        signal_process(process.get(), SIGKILL);
    }
    return true;
}
