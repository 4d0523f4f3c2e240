#include "openssh/launch.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "common/text.h"
#include "openssh/accepted_files.h"
#include "openssh/algorithm_query.h"
#include "openssh/preload.h"
#include "openssh/run_programs.h"
#include "openssh/state_files.h"
#include "openssh/text.h"
#include "openssh/translate.h"
#include "openssh/turn.h"
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

/// Why a file cannot be used: a sentence for the log, and the message of sshd or of the translation, which has already
/// been logged.
struct file_failure {
    std::string text;
    std::string words = {};

    explicit operator bool() const { return !text.empty(); }
    std::string whole() const { return words.empty() ? text : text + ": " + words; }
};

std::string first_line(std::string_view text) {
    const auto lines = split(text, "\r\n");
    return lines.empty() ? std::string() : shown(lines.front());
}

std::string first_error(const translation& result) {
    const auto error = std::find_if(result.remarks.begin(), result.remarks.end(),
                                    [](const remark& one) { return one.level == severity::error; });
    return error == result.remarks.end() ? std::string() : error->text;
}

/// The part of the session wrapper that is missing, cannot be executed or is writable by others; empty text if there is none.
std::string missing_wrapper_part(const launcher_paths& paths) {
    for (const std::string* path : {&paths.session_hook, &paths.session_wrapper}) {
        const bool can_be_run = path == &paths.session_hook || access(path->c_str(), X_OK) == 0;
        if (!can_be_run || !is_trusted_file(*path)) {
            return *path;
        }
    }
    return {};
}

/// sshd itself says nothing about a subsystem that it cannot start.
void warn_of_missing_netconf(const launcher_paths& paths, const translation& result, const reporter& to) {
    const std::vector<std::string>& ports = result.limits.ports;
    if (std::find(ports.begin(), ports.end(), netconf_port) != ports.end() &&
        access(paths.netconf_program.c_str(), X_OK) != 0) {
        report(to, severity::warning,
               text_format("port %s is open, but NETCONF sessions fail: %s is missing or cannot be executed",
                           netconf_port, paths.netconf_program.c_str()));
    }
}

/// Queries ssh's algorithms, translates, and reports the remarks.
file_failure translate_and_report(const launcher_paths& paths, const std::string& text, const reporter& to,
                                  translation& result) {
    file_translator translator(paths);
    const std::string error = translator.prepare();
    if (!error.empty()) {
        return {error};
    }
    result = translator.translate_file(text, to.server_file);
    for (const remark& one : result.remarks) {
        report(to, one.level, one.text);
    }
    warn_of_missing_netconf(paths, result, to);
    return result.refused ? file_failure{"the file is unusable", first_error(result)} : file_failure{};
}

/// Has sshd itself check a file. Its output is reported even if it accepts the file.
file_failure test_with_sshd(const launcher_paths& paths, const std::string& file, const reporter& to,
                            bool* without_a_word = nullptr) {
    const program_result result = run_programs({{paths.sshd, "-t", "-f", file}}, test_limit).front();
    const bool taken = result.status == 0;
    if (without_a_word != nullptr) {
        *without_a_word = taken && result.errors.empty();
    }
    report_words(to, taken ? severity::warning : severity::error, "sshd says: ", result.errors);
    if (!result.failure.empty()) {
        return {text_format("%s -t %s", paths.sshd.c_str(), result.failure.c_str())};
    }
    if (taken) {
        return {};
    }
    return {text_format("sshd rejects the file (exit status %d)", result.status), first_line(result.errors)};
}

/// The same, unless sshd has accepted the text before. A text about which sshd has something to say is tested each time.
file_failure test_new_text(const launcher_paths& paths, const std::string& file, const std::string& text,
                           const reporter& to) {
    const std::string record = accepted_record(paths.sshd, text);
    if (is_accepted(paths.state_directory, record)) {
        return {};
    }
    const turn to_ask(paths.state_directory, turn_limit);
    if (is_accepted(paths.state_directory, record)) {
        return {};
    }
    bool without_a_word = false;
    file_failure failure = test_with_sshd(paths, file, to, &without_a_word);
    if (without_a_word) {
        keep_accepted(paths.state_directory, record);
    }
    return failure;
}

/// Tests a translation and makes it the current one, or sets it aside if sshd does not accept it.
file_failure adopt(const launcher_paths& paths, const translation_files& files, const std::string& text,
                   const reporter& to) {
    const std::string error = write_new_file(files.candidate, text);
    if (!error.empty()) {
        return {error};
    }
    file_failure failure = test_new_text(paths, files.candidate, text, to);
    if (!failure) {
        return {move_file(files.candidate, files.current)};
    }
    if (move_file(files.candidate, files.refused).empty()) {
        failure.text += text_format("; the rejected file is kept as %s", files.refused.c_str());
    }
    return failure;
}

/// Checks that the last good file is still good: its host keys may be gone, and if it was created outside FIPS mode,
/// its algorithms may now be forbidden.
file_failure check_last_good(const launcher_paths& paths, const translation_files& files, bool fips_mode,
                             const reporter& to) {
    std::string text;
    const std::string error = read_file(files.current, text);
    if (!error.empty()) {
        return {"no last good file exists; the server is not started: " + error};
    }
    if (fips_mode && !was_made_in_fips_mode(text)) {
        return {"the last good file was made outside FIPS mode; the server is not started"};
    }
    const file_failure failure = test_with_sshd(paths, files.current, to);
    if (!failure) {
        return {};
    }
    return {"the last good file is no longer valid; the server is not started: " + failure.text};
}

/// An earlier copy would be taken for this start's.
void keep_source(const std::string& config, const std::string& text, const reporter& to) {
    const std::string path = launch_source_path(config);
    const std::string error = replace_file(path, text);
    if (!error.empty()) {
        unlink(path.c_str());
        report(to, severity::warning, "the file that the server is started with is not kept: " + error);
    }
}

launch_status fall_back(const launcher_paths& paths, const translation_files& files, bool fips_mode, const reporter& to,
                        launch_record& record) {
    const file_failure failure = check_last_good(paths, files, fips_mode, to);
    if (failure) {
        report(to, severity::error, failure.text);
        record.reason += "; " + failure.text;
        return launch_no_good_file;
    }
    report(to, severity::error, "THE SERVER RUNS WITH THE LAST GOOD FILE, not with its current settings");
    record.in_use = launch_file::last_good;
    record.config = files.current;
    return launch_ready;
}

/// The steps that even falling back depends on. `failure` receives the error, which is reported.
launch_status read_server_file(const launcher_paths& paths, const launch_options& options, const reporter& to,
                               std::string& text, std::string& failure) {
    launch_status status = launch_ready;
    failure = ensure_directories(paths);
    if (!failure.empty()) {
        failure = "the server cannot be started: " + failure;
        status = launch_no_state;
    } else if (failure = read_file(options.file, text); !failure.empty()) {
        failure = "the server file cannot be used: " + failure;
        status = launch_file_unreadable;
    }
    if (!failure.empty()) {
        report(to, severity::error, failure);
    }
    return status;
}

}  // namespace

std::string file_translator::prepare() {
    return query_algorithms(paths_.ssh, paths_.state_directory + "/~algorithms", known_);
}

translation file_translator::translate_file(std::string_view text, std::string_view name) const {
    const bool has_keys_program = access(paths_.user_keys_program.c_str(), X_OK) == 0;
    return translate({.text = text,
                      .source_name = name,
                      .known = &known_,
                      .key_is_usable = is_readable_file,
                      .user_keys_program = has_keys_program ? paths_.user_keys_program : std::string_view(),
                      .verbose_places = session_reporter_of(paths_).empty() ? "" : server_verbose_places,
                      .sessions_are_wrapped = missing_wrapper_part(paths_).empty()});
}

launch_status prepare_launch(const launcher_paths& paths, const launch_options& options, const reporter& to,
                             launch& prepared) {
    launch_record& record = prepared.record;
    record.process = getpid();
    record.server_file = options.file;
    std::string text;
    const launch_status status = read_server_file(paths, options, to, text, record.reason);
    if (status != launch_ready) {
        return status;
    }
    const translation_files files = translation_files_of(paths.state_directory, paths.agent_directory, options.file);
    translation result;
    file_failure failure = translate_and_report(paths, text, to, result);
    if (!failure) {
        failure = adopt(paths, files, result.text, to);
    }
    prepared.config = files.current;
    prepared.limits = result.limits;
    if (!failure) {
        record.in_use = launch_file::current;
        record.config = files.current;
        keep_source(files.current, text, to);
        return launch_ready;
    }
    report(to, severity::error, failure.text);
    record.reason = failure.whole();
    return fall_back(paths, files, asks_for_fips_mode(text), to, record);
}

void keep_record(const launcher_paths& paths, launch_record record, const reporter& to) {
    record.config_stamp = launch_file_stamp(record.config);
    const translation_files files =
        translation_files_of(paths.state_directory, paths.agent_directory, record.server_file);
    const std::string error = replace_file(launch_record_path(files.current), launch_record_format(record));
    if (!error.empty()) {
        report(to, severity::warning, "what the server was started with is not recorded: " + error);
    }
}

launch_status try_translation(const launcher_paths& paths, const launch_options& options, const reporter& to,
                              std::string& translated) {
    std::string text;
    std::string unreadable;
    const launch_status status = read_server_file(paths, options, to, text, unreadable);
    if (status != launch_ready) {
        return status;
    }
    translation result;
    std::string error = translate_and_report(paths, text, to, result).text;
    translated = result.text;
    const std::string candidate =
        translation_files_of(paths.state_directory, paths.agent_directory, options.file).candidate;
    if (error.empty()) {
        error = write_new_file(candidate, translated);
    }
    if (error.empty()) {
        error = test_with_sshd(paths, candidate, to).text;
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
    const std::string missing = missing_wrapper_part(paths);
    if (missing.empty()) {
        return paths.session_hook;
    }
    report(to, severity::warning,
           text_format("sessions run without their wrapper, so a reload will not end them: %s is missing, cannot be "
                       "executed, or is writable by others",
                       missing.c_str()));
    return {};
}

}  // namespace openssh
