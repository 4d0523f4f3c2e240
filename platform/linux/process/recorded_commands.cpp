#include "linux/process/recorded_commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <sstream>
#include <string_view>
#include <vector>

#include "common/file_descriptor.h"
#include "common/files.h"
#include "linux/reporting/log_message_internal.h"
#include "platform/shell_commands.h"

namespace {

constexpr int succeeded = 0;
constexpr int failed = 1 << 8;  ///< a wait status: exit status 1
constexpr size_t copied_max = size_t{16} * 1024 * 1024;

using command_words = std::vector<std::string>;

recorded_commands* recorded;

/// The VRF of a server's unit; empty for another unit.
std::string vrf_of_unit(std::string_view unit) {
    constexpr std::string_view prefix = "sshd_service_";
    constexpr std::string_view suffix = ".service";
    if (!unit.starts_with(prefix)) {
        return {};
    }
    unit.remove_prefix(prefix.size());
    if (unit.ends_with(suffix)) {
        unit.remove_suffix(suffix.size());
    }
    return std::string(unit);
}

int record_servers(const command_words& words, bool started) {
    for (size_t i = 2; i < words.size(); ++i) {
        const std::string vrf_name = vrf_of_unit(words[i]);
        if (!vrf_name.empty()) {
            recorded->servers[vrf_name] = started;
        }
    }
    return succeeded;
}

int record_start(const command_words& words) {
    return record_servers(words, true);
}

int record_stop(const command_words& words) {
    return record_servers(words, false);
}

/// "systemctl is-active sshd_service_NAME > FILE"
int answer_is_active(const command_words& words) {
    if (words.size() != 5 || words[3] != ">") {
        return failed;
    }
    const std::string vrf_name = vrf_of_unit(words[2]);
    const auto server = recorded->servers.find(vrf_name);
    const bool is_active = server != recorded->servers.end() ? server->second : recorded->is_running(vrf_name);
    const platform_status status = file_write_new(words[4], is_active ? "active\n" : "inactive\n", {.mode = 0644});
    return status == PLATFORM_OK && is_active ? succeeded : failed;
}

/// Units that were never really started have no states; the command for them has succeeded, and that has to do.
int fail_to_ask(const command_words&) {
    return failed;
}

int record_nothing(const command_words&) {
    return succeeded;
}

/// "/sbin/ip netns exec vrf-NAME /usr/sbin/nft -f FILE"
int record_rules(const command_words& words) {
    constexpr std::string_view prefix = "vrf-";
    if (words.size() > 3 && words[3].starts_with(prefix)) {
        recorded->rules.insert(words[3].substr(prefix.size()));
    }
    return succeeded;
}

/// Done here, because hundreds of files take long to copy with a process each.
int copy(const command_words& words) {
    std::string content;
    const file_descriptor source(open(words.at(1).c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    if (words.size() != 3 || source.get() < 0 || fstat(source.get(), &status) != 0 ||
        file_read_regular(source.get(), copied_max, content) != PLATFORM_OK) {
        return failed;
    }
    const file_descriptor target(
        open(words[2].c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, status.st_mode & 0777));
    const bool written = target.get() >= 0 &&
                         write(target.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size());
    return written ? succeeded : failed;
}

struct command_row {
    const char* begin;  ///< the command's first words
    /// Carries the command out or records it, and returns its wait status; null to leave it to the shell.
    int (*take)(const command_words& words);
};

const command_row rows[] = {
    {"systemctl daemon-reload", record_nothing},
    {"systemctl reset-failed ", record_nothing},
    {"systemctl restart ", record_start},
    {"systemctl start ", record_start},
    {"systemctl stop ", record_stop},
    {"systemctl is-active ", answer_is_active},
    {"systemctl show ", fail_to_ask},
    {"systemctl list-units ", fail_to_ask},
    {"/sbin/ip netns exec ", record_rules},
    {"ip netns list", nullptr},
    {"cp ", copy},
    {"ps ", nullptr},
};

command_words words_of(const std::string& command) {
    std::istringstream stream(command);
    command_words words;
    for (std::string word; stream >> word;) {
        words.push_back(std::move(word));
    }
    return words;
}

/// Returns false for a command that is left to the shell. An unknown one fails.
bool take(const std::string& command, int& status) {
    const auto* const row = std::find_if(std::begin(rows), std::end(rows),
                                         [&command](const command_row& one) { return command.starts_with(one.begin); });
    if (row == std::end(rows)) {
        recorded->unknown = recorded->unknown.empty() ? command : recorded->unknown;
        status = failed;
        return true;
    }
    if (row->take == nullptr) {
        return false;
    }
    status = row->take(words_of(command));
    return true;
}

}  // namespace

void record_commands(recorded_commands& commands) {
    recorded = &commands;
}

bool commands_are_recorded() {
    return recorded != nullptr;
}

uint32_t platform_take_command(const char* command, int* status) {
    if (recorded == nullptr) {
        return 0;
    }
    const errno_keeper keeper;
    try {
        return take(command, *status) ? 1 : 0;
    } catch (const std::exception&) {
        *status = failed;
        return 1;
    }
}
