#include "linux/enforcement/server_files.h"

#include <dirent.h>
#include <signal.h>

#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "common/launch_record.h"
#include "platform/enforcement.h"

namespace {

constexpr char records[] = "/run/ssh_cfg_agent/openssh";
constexpr std::string_view prefix = "sshd_config_";
constexpr std::string_view suffix = "~launch";

/// The VRF of a record's file name; empty if it is none.
std::string_view vrf_of(std::string_view file) {
    if (!file.starts_with(prefix) || !file.ends_with(suffix) || file.size() <= prefix.size() + suffix.size()) {
        return {};
    }
    return file.substr(prefix.size(), file.size() - prefix.size() - suffix.size());
}

std::string subject_of(std::string_view vrf_name) {
    return std::string("server file ").append(vrf_name);
}

/// Calls `take` with the record of each VRF whose server is still running.
template <typename Take>
void for_each_record(const Take& take) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(records), closedir);
    while (const dirent* entry = directory != nullptr ? readdir(directory.get()) : nullptr) {
        const std::string vrf_name(vrf_of(entry->d_name));
        launch_record record;
        if (!vrf_name.empty() && launch_record_read(vrf_name, record) == PLATFORM_OK && record.process > 0 &&
            kill(record.process, 0) == 0) {
            take(vrf_name, record);
        }
    }
}

std::string local_subject_of(std::string_view vrf_name) {
    return std::string("local directives ").append(vrf_name);
}

/// Why the local directives in the files are not in force, according to the record of the start.
std::string local_text_of(const launch_record& record) {
    std::string text;
    for (const std::string& problem : record.local_problems) {
        text += (text.empty() ? "" : "; ") + problem;
    }
    return record.local == launch_local::last_accepted ? "the last accepted ones are in force: " + text
           : record.local == launch_local::left_out    ? "none are in force: " + text
                                                       : text;
}

std::string text_of(const launch_record& record) {
    return "sshd rejected the file, the last good one is in use: " + record.reason;
}

}  // namespace

std::vector<server_file_difference> server_file_differences() {
    std::vector<server_file_difference> differences;
    for_each_record([&differences](const std::string& vrf_name, const launch_record& record) {
        if (record.in_use == launch_file::last_good) {
            differences.push_back({subject_of(vrf_name), text_of(record)});
            return;
        }
        const std::string problem = local_text_of(record);
        if (!problem.empty()) {
            differences.push_back({local_subject_of(vrf_name), problem});
        }
    });
    return differences;
}

void server_files_report() {
    try {
        for_each_record([](const std::string& vrf_name, const launch_record& record) {
            if (record.in_use == launch_file::last_good) {
                enforcement_failed(subject_of(vrf_name).c_str(), text_of(record).c_str());
            } else {
                enforcement_restored(subject_of(vrf_name).c_str());
            }
            const std::string problem = local_text_of(record);
            if (problem.empty()) {
                enforcement_restored(local_subject_of(vrf_name).c_str());
            } else {
                enforcement_failed(local_subject_of(vrf_name).c_str(), problem.c_str());
            }
        });
    } catch (const std::bad_alloc&) {
        // The next comparison finds the same.
    }
}
