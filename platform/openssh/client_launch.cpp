#include "openssh/client_launch.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iterator>

#include "common/text.h"
#include "openssh/algorithm_query.h"
#include "openssh/preload.h"
#include "openssh/run_programs.h"
#include "openssh/state_files.h"
#include "openssh/text.h"
#include "openssh/translate.h"
#include "openssh/verbose_places.h"

namespace openssh {

namespace {

constexpr std::chrono::seconds argument_check_limit{10};

/// How `ssh -G` begins the line of each list.
struct list_word {
    std::string_view word;
    const char* keyword;
    algorithm_kind kind;
};

constexpr list_word list_words[] = {
    {"ciphers", "Ciphers", algorithm_kind::cipher},
    {"macs", "MACs", algorithm_kind::mac},
    {"kexalgorithms", "KexAlgorithms", algorithm_kind::kex},
    {"hostkeyalgorithms", "HostKeyAlgorithms", algorithm_kind::key},
};

const list_word* find_list(std::string_view word) {
    const auto* found = std::find_if(std::begin(list_words), std::end(list_words),
                                     [word](const list_word& list) { return list.word == word; });
    return found == std::end(list_words) ? nullptr : found;
}

/// Whether nobody else can make, rename or remove anything in the folder; its own parents are the system's.
bool is_private_to(const std::string& path, unsigned user) {
    struct stat status;
    return path.starts_with('/') && stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
           status.st_uid == user && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

/// A missing server file means that no server was ever configured, and so FIPS mode is off.
bool router_is_in_fips_mode(const launcher_paths& paths) {
    std::string text;
    return read_file(paths.default_server_file, text).empty() && asks_for_fips_mode(text);
}

void report_remarks(const translation& result, const client_reporters& to) {
    for (const remark& one : result.remarks) {
        report(to.log, one.level, one.text);
        if (one.level == severity::error) {
            report(to.terminal, one.level, one.text);
        }
    }
}

}  // namespace

std::string client_state_directory(const launcher_paths& paths, const client_user& user) {
    if (user.id == 0) {
        return paths.state_directory;
    }
    for (const std::string& place :
         {user.runtime_directory, text_format("%s%u", paths.user_runtime_directories.c_str(), user.id)}) {
        if (is_private_to(place, user.id)) {
            return place + "/ssh_csm";
        }
    }
    if (is_private_to(user.home, user.id)) {
        return user.home + "/.cache/ssh_csm";
    }
    std::string made = paths.temporary_directory + "/ssh_csm-XXXXXX";
    return mkdtemp(made.data()) == nullptr ? std::string() : made;
}

std::string prepare_client(const launcher_paths& paths, const std::string& state_directory, const client_reporters& to,
                           std::string& config) {
    std::string text;
    std::string error = read_file(paths.client_file, text);
    if (error.empty()) {
        error = ensure_directory(state_directory, 0700);
    }
    known_algorithms known;
    if (error.empty()) {
        error = query_algorithms(paths.ssh, state_directory + "/~algorithms", known);
    }
    if (!error.empty()) {
        return error;
    }
    const translation result =
        translate({.text = text,
                   .source_name = paths.client_file,
                   .known = &known,
                   .verbose_places = session_reporter_of(paths).empty() ? "" : client_verbose_places,
                   .kind = &client_file_kind,
                   .fips_mode = router_is_in_fips_mode(paths)});
    report_remarks(result, to);
    if (result.refused) {
        return "the client's file is unusable";
    }
    config = state_directory + "/ssh_config";
    return replace_file(config, result.text);
}

std::string check_fips_arguments(const launcher_paths& paths, const std::string& config, int count,
                                 char* const* arguments) {
    if (!router_is_in_fips_mode(paths)) {
        return {};
    }
    // ssh itself says what it makes of all options, files and changes to lists.
    std::vector<std::string> command = {paths.ssh, "-F", config, "-G"};
    command.insert(command.end(), arguments + 1, arguments + count);
    const program_result result = run_programs({command}, argument_check_limit).front();
    if (!result.failure.empty()) {
        return text_format("the algorithms cannot be checked for FIPS mode: %s %s", paths.ssh.c_str(),
                           result.failure.c_str());
    }
    for (const std::string_view line : split(result.output, "\r\n")) {
        const size_t blank = line.find(' ');
        const list_word* list = find_list(line.substr(0, blank));
        if (list == nullptr || blank == std::string_view::npos) {
            continue;
        }
        for (const std::string_view name : split(line.substr(blank + 1), ",")) {
            if (!is_fips_approved(list->kind, name)) {
                return text_format("%s: not approved in FIPS mode: %s", list->keyword, shown(name).c_str());
            }
        }
    }
    return {};
}

std::vector<std::string> client_command(const launcher_paths& paths, const std::string& config, int count,
                                        char* const* arguments) {
    std::vector<std::string> command = {paths.client_name, "-F", config};
    command.insert(command.end(), arguments + 1, arguments + count);
    return command;
}

}  // namespace openssh
