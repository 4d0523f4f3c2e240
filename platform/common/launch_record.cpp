#include "common/launch_record.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "common/files.h"
#include "common/number.h"
#include "common/text.h"

namespace {

constexpr std::string_view translations = "/run/ssh_cfg_agent/openssh/sshd_config_";
constexpr size_t largest_record = size_t{64} * 1024;

constexpr std::string_view local_words[] = {"none", "current", "last_accepted", "left_out"};
constexpr std::string_view file_words[] = {"none", "current", "last_good"};

/// A value must stay on its line, whatever sshd has said.
std::string one_line(std::string_view value) {
    std::string line(value);
    std::replace_if(
        line.begin(), line.end(),
        [](char c) {
            const auto byte = static_cast<unsigned char>(c);
            return byte < 0x20 || byte == 0x7f;
        },
        ' ');
    return line;
}

void add_line(std::string& text, std::string_view key, std::string_view value) {
    if (!value.empty()) {
        text.append(key).append(" ").append(one_line(value)).append("\n");
    }
}

/// Returns false for an invalid value of a known key.
bool take_line(launch_record& record, std::string_view key, std::string_view value) {
    if (key == "in_use") {
        const auto* word = std::find(std::begin(file_words), std::end(file_words), value);
        record.in_use = static_cast<launch_file>(word - std::begin(file_words));
        return word != std::end(file_words);
    }
    if (key == "local") {
        const auto* word = std::find(std::begin(local_words), std::end(local_words), value);
        record.local = static_cast<launch_local>(word - std::begin(local_words));
        return word != std::end(local_words);
    }
    if (key == "process") {
        record.process = number_parse<pid_t>(value, 1).value_or(0);
        return record.process != 0;
    }
    if (key == "connections_per_minute") {
        record.connections_per_minute = number_parse<uint32_t>(value, 1).value_or(0);
        return record.connections_per_minute != 0;
    }
    if (key == "local_problem") {
        record.local_problems.emplace_back(value);
    } else if (key == "not_in_force") {
        record.not_in_force.emplace_back(value);
    } else if (key == "server_file") {
        record.server_file = value;
    } else if (key == "config") {
        record.config = value;
    } else if (key == "config_stamp") {
        record.config_stamp = value;
    } else if (key == "ports") {
        record.ports = value;
    } else if (key == "reason") {
        record.reason = value;
    }
    return true;
}

}  // namespace

std::string launch_record_path(std::string_view config) {
    return std::string(config) + "~launch";
}

std::string launch_source_path(std::string_view config) {
    return std::string(config) + "~source";
}

std::string launch_file_stamp(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return {};
    }
    return text_format("%llu %llu %lld.%09ld", static_cast<unsigned long long>(status.st_dev),
                       static_cast<unsigned long long>(status.st_ino), static_cast<long long>(status.st_ctim.tv_sec),
                       status.st_ctim.tv_nsec);
}

std::string launch_record_format(const launch_record& record) {
    std::string text;
    add_line(text, "in_use", file_words[static_cast<size_t>(record.in_use)]);
    add_line(text, "process", std::to_string(record.process));
    add_line(text, "server_file", record.server_file);
    add_line(text, "config", record.config);
    add_line(text, "config_stamp", record.config_stamp);
    if (record.connections_per_minute != 0) {
        add_line(text, "connections_per_minute", std::to_string(record.connections_per_minute));
    }
    add_line(text, "ports", record.ports);
    add_line(text, "reason", record.reason);
    if (record.local != launch_local::none) {
        add_line(text, "local", local_words[static_cast<size_t>(record.local)]);
    }
    for (const std::string& sentence : record.local_problems) {
        add_line(text, "local_problem", sentence);
    }
    for (const std::string& sentence : record.not_in_force) {
        add_line(text, "not_in_force", sentence);
    }
    return text;
}

bool launch_record_parse(std::string_view text, launch_record& record) {
    launch_record found;
    bool has_state = false;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        const size_t blank = std::min(line.find(' '), line.size());
        const std::string_view key = line.substr(0, blank);
        if (!take_line(found, key, line.substr(std::min(blank + 1, line.size())))) {
            return false;
        }
        has_state = has_state || key == "in_use";
    }
    if (has_state) {
        record = std::move(found);
    }
    return has_state;
}

platform_status launch_record_read(std::string_view vrf_name, launch_record& record) {
    const std::string path = launch_record_path(std::string(translations).append(vrf_name));
    std::string text;
    const platform_status status = file_read(path, largest_record, text, file_links::refused);
    if (status != PLATFORM_OK) {
        return status;
    }
    return launch_record_parse(text, record) ? platform_status{PLATFORM_OK} : EBADMSG;
}
