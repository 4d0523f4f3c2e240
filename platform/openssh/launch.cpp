#include "openssh/launch.h"

#include <unistd.h>

#include <chrono>

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

constexpr std::chrono::seconds test_limit{20};

std::string ensure_directories(const launcher_paths& paths) {
    std::string error = ensure_directory(paths.state_directory, 0700);
    if (error.empty()) {
        error = ensure_directory(paths.privilege_separation_directory, 0755);
    }
    return error;
}

/// Queries ssh's algorithms, translates, and reports the remarks.
std::string translate_and_report(const launcher_paths& paths, const std::string& text, const reporter& to,
                                 translation& result) {
    known_algorithms known;
    std::string error = query_algorithms(paths.ssh, paths.state_directory + "/~algorithms", known);
    if (!error.empty()) {
        return error;
    }
    const bool has_keys_program = access(paths.user_keys_program.c_str(), X_OK) == 0;
    result = translate({.text = text,
                        .source_name = to.server_file,
                        .known = &known,
                        .key_is_usable = is_readable_file,
                        .user_keys_program = has_keys_program ? paths.user_keys_program : std::string_view(),
                        .verbose_places = session_reporter_of(paths).empty() ? "" : server_verbose_places});
    for (const remark& one : result.remarks) {
        report(to, one.level, one.text);
    }
    return result.refused ? "the file is unusable" : "";
}

/// Has sshd itself check a file. Its output is reported even if it accepts the file.
std::string test_with_sshd(const launcher_paths& paths, const std::string& file, const reporter& to) {
    const program_result result = run_programs({{paths.sshd, "-t", "-f", file}}, test_limit).front();
    const bool taken = result.status == 0;
    report_words(to, taken ? severity::warning : severity::error, "sshd says: ", result.errors);
    if (!result.failure.empty()) {
        return text_format("%s -t %s", paths.sshd.c_str(), result.failure.c_str());
    }
    return taken ? std::string() : text_format("sshd rejects the file (exit status %d)", result.status);
}

/// Tests a translation and makes it the current one, or sets it aside if sshd does not accept it.
std::string adopt(const launcher_paths& paths, const translation_files& files, const std::string& text,
                  const reporter& to) {
    std::string error = write_new_file(files.candidate, text);
    if (!error.empty()) {
        return error;
    }
    error = test_with_sshd(paths, files.candidate, to);
    if (error.empty()) {
        return move_file(files.candidate, files.current);
    }
    if (move_file(files.candidate, files.refused).empty()) {
        error += text_format("; the rejected file is kept as %s", files.refused.c_str());
    }
    return error;
}

/// Checks that the last good file is still good: its host keys may be gone, and if it was created outside FIPS mode,
/// its algorithms may now be forbidden.
launch_status fall_back(const launcher_paths& paths, const translation_files& files, bool fips_mode,
                        const reporter& to) {
    std::string text;
    std::string error = read_file(files.current, text);
    if (!error.empty()) {
        report(to, severity::error, "no last good file exists; the server is not started: " + error);
        return launch_no_good_file;
    }
    if (fips_mode && !was_made_in_fips_mode(text)) {
        report(to, severity::error, "the last good file was made outside FIPS mode; the server is not started");
        return launch_no_good_file;
    }
    error = test_with_sshd(paths, files.current, to);
    if (!error.empty()) {
        report(to, severity::error, "the last good file is no longer valid; the server is not started: " + error);
        return launch_no_good_file;
    }
    report(to, severity::error, "THE SERVER RUNS WITH THE LAST GOOD FILE, not with its current settings");
    return launch_ready;
}

/// The steps without which nothing works, not even falling back.
launch_status read_server_file(const launcher_paths& paths, const launch_options& options, const reporter& to,
                               std::string& text) {
    std::string error = read_file(options.file, text);
    if (!error.empty()) {
        report(to, severity::error, "the server file cannot be used: " + error);
        return launch_file_unreadable;
    }
    error = ensure_directories(paths);
    if (!error.empty()) {
        report(to, severity::error, "the server cannot be started: " + error);
        return launch_no_state;
    }
    return launch_ready;
}

}  // namespace

launch_status prepare_launch(const launcher_paths& paths, const launch_options& options, const reporter& to,
                             launch& prepared) {
    std::string text;
    const launch_status status = read_server_file(paths, options, to, text);
    if (status != launch_ready) {
        return status;
    }
    const translation_files files = translation_files_of(paths.state_directory, paths.agent_directory, options.file);
    translation result;
    std::string error = translate_and_report(paths, text, to, result);
    if (error.empty()) {
        error = adopt(paths, files, result.text, to);
    }
    prepared = {files.current, result.limits};
    if (error.empty()) {
        return launch_ready;
    }
    report(to, severity::error, error);
    return fall_back(paths, files, asks_for_fips_mode(text), to);
}

launch_status try_translation(const launcher_paths& paths, const launch_options& options, const reporter& to,
                              std::string& translated) {
    std::string text;
    const launch_status status = read_server_file(paths, options, to, text);
    if (status != launch_ready) {
        return status;
    }
    translation result;
    std::string error = translate_and_report(paths, text, to, result);
    translated = result.text;
    const std::string candidate =
        translation_files_of(paths.state_directory, paths.agent_directory, options.file).candidate;
    if (error.empty()) {
        error = write_new_file(candidate, translated);
    }
    if (error.empty()) {
        error = test_with_sshd(paths, candidate, to);
        unlink(candidate.c_str());
    }
    if (error.empty()) {
        return launch_ready;
    }
    report(to, severity::error, error);
    return launch_no_good_file;
}

std::vector<std::string> server_command(const launcher_paths& paths, const std::string& config) {
    return {paths.sshd, "-D", "-f", config};
}

std::string session_hook_of(const launcher_paths& paths, const reporter& to) {
    for (const std::string* path : {&paths.session_hook, &paths.session_wrapper, &paths.session_starter}) {
        const bool can_be_run = path == &paths.session_hook || access(path->c_str(), X_OK) == 0;
        if (!can_be_run || !is_trusted_file(*path)) {
            report(to, severity::warning,
                   text_format(
                       "sessions run without their wrapper, so a reload will not end them: %s is missing, cannot be "
                       "executed, or is writable by others",
                       path->c_str()));
            return {};
        }
    }
    return paths.session_hook;
}

}  // namespace openssh
