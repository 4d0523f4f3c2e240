#include "openssh/reporter/own_process.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "openssh/reporter/line_pattern.h"

namespace openssh {

namespace {

constexpr unsigned pts_major_first = 136;
constexpr unsigned pts_major_last = 143;
constexpr unsigned minors_of_a_major = 256;

// Fields of /proc/PID/stat in the numbering of proc(5).
constexpr int state_field = 3;
constexpr int parent_field = 4;
constexpr int terminal_field = 7;
constexpr int start_time_field = 22;

uint32_t terminal_of(int device) {
    const auto number = static_cast<dev_t>(static_cast<unsigned>(device));
    const unsigned first = major(number);
    if (first < pts_major_first || first > pts_major_last) {
        return no_terminal;
    }
    return (first - pts_major_first) * minors_of_a_major + minor(number);
}

std::string_view take_word(std::string_view& rest) {
    size_t length = 0;
    while (length < rest.size() && rest[length] != ' ' && rest[length] != '\n') {
        ++length;
    }
    const std::string_view word(rest.data(), length);
    rest.remove_prefix(length < rest.size() ? length + 1 : length);
    return word;
}

}  // namespace

bool parse_process_stat(std::string_view text, process_stat& found) noexcept {
    // The name in parentheses may contain anything, including parentheses and spaces.
    const size_t name_end = text.rfind(") ");
    if (name_end == std::string_view::npos) {
        return false;
    }
    text.remove_prefix(name_end + 2);
    process_stat read;
    for (int field = state_field; field < start_time_field; ++field) {
        const std::string_view word = take_word(text);
        unsigned long long number = 0;
        if (field == state_field && !word.empty()) {
            read.state = word.front();
        } else if (field == parent_field) {
            if (!number_of(word, number)) {
                return false;
            }
            read.parent = static_cast<int32_t>(number);
        } else if (field == terminal_field && number_of(word, number)) {
            read.terminal = terminal_of(static_cast<int>(number));
        }
    }
    unsigned long long start_time = 0;
    if (!number_of(take_word(text), start_time)) {
        return false;
    }
    read.start_time = start_time;
    found = read;
    return true;
}

bool read_own_stat(process_stat& found) noexcept {
    char text[1024];
    const int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    const ssize_t length = file < 0 ? -1 : read(file, text, sizeof(text));
    if (file >= 0) {
        close(file);
    }
    return length > 0 && parse_process_stat({text, static_cast<size_t>(length)}, found);
}

uint64_t seconds_since_boot() noexcept {
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec);
}

}  // namespace openssh
