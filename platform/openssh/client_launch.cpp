#include "openssh/client_launch.h"

#include "common/text.h"
#include "openssh/algorithm_query.h"
#include "openssh/preload.h"
#include "openssh/state_files.h"
#include "openssh/text.h"
#include "openssh/translate.h"
#include "openssh/verbose_places.h"

namespace openssh {

namespace {

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

std::string client_state_directory(const launcher_paths& paths, unsigned user, const char* runtime_directory) {
    if (user == 0) {
        return paths.state_directory;
    }
    if (runtime_directory != nullptr && runtime_directory[0] == '/') {
        return std::string(runtime_directory) + "/ssh_csm";
    }
    return text_format("/tmp/ssh_csm-%u", user);
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

std::vector<std::string> client_command(const launcher_paths& paths, const std::string& config, int count,
                                        char* const* arguments) {
    std::vector<std::string> command = {paths.client_name, "-F", config};
    command.insert(command.end(), arguments + 1, arguments + count);
    return command;
}

}  // namespace openssh
