#include "openssh/launch.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "common/files.h"
#include "common/text.h"
#include "openssh/algorithm_query.h"
#include "openssh/local_addresses.h"
#include "openssh/local_choice.h"
#include "openssh/preload.h"
#include "openssh/sshd_acceptance.h"
#include "openssh/state_files.h"
#include "openssh/text.h"
#include "openssh/translate.h"
#include "openssh/verbose_places.h"

namespace openssh {

namespace {

std::string ensure_directories(const launcher_paths& paths) {
    std::string error = ensure_directory(paths.state_directory, 0700);
    if (error.empty()) {
        error = ensure_directory(paths.privilege_separation_directory, 0755);
    }
    return error;
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

/// Translates without local directives, and reports the remarks.
file_failure translate_and_report(const launcher_paths& paths, file_translator& translator, const std::string& text,
                                  const std::string& server_file, const reporter& to) {
    const std::string error = translator.prepare();
    if (!error.empty()) {
        return {error};
    }
    const translation result = translator.translate_file(text, server_file, {});
    for (const remark& one : result.remarks) {
        report(to, one.level, one.text);
    }
    warn_of_missing_netconf(paths, result, to);
    return result.refused ? file_failure{"the file is unusable", first_error(result)} : file_failure{};
}

/// Reports which local directives are in force, and why not the present ones.
void report_local_directives(const local_choice& choice, const reporter& to) {
    constexpr const char* words[] = {
        "", "", "THE SERVER RUNS WITH THE LAST ACCEPTED LOCAL DIRECTIVES, not with its present ones",
        "THE SERVER RUNS WITHOUT LOCAL DIRECTIVES"};
    for (const std::string& problem : choice.problems) {
        report(to, severity::error, problem);
    }
    for (const local_verdict& one : choice.result.local.verdicts) {
        if (one.outcome == local_outcome::accepted && !one.text.empty()) {
            report(to, severity::notice, local_place_text(one.path, one.line) + ": " + one.text);
        }
    }
    const char* text = words[static_cast<size_t>(choice.in_use)];
    if (text[0] != '\0') {
        report(to, severity::error, text);
    } else if (const size_t count = choice.result.local.count_in_force(); count != 0) {
        report(to, severity::notice, text_format("%zu local directives are in force", count));
    }
}

/// Tests a translation and makes it the current one, or sets it aside if sshd does not accept it.
file_failure adopt(const launcher_paths& paths, const translation_files& files, const std::string& text,
                   const reporter& to) {
    const std::string error = write_new_file(files.candidate, text);
    if (!error.empty()) {
        return {error};
    }
    file_failure failure = test_new_text(paths, files.candidate, text, &to);
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
    const file_failure failure = test_with_sshd(paths, files.current, &to);
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

/// If the directives are left out, the last accepted ones may be good again later.
void keep_local_directives(const std::string& path, const local_choice& choice, const reporter& to) {
    if (choice.in_use != launch_local::none && choice.in_use != launch_local::current) {
        return;
    }
    const std::string error = keep_accepted_files(path, choice.files);
    if (!error.empty()) {
        report(to, severity::warning, "the accepted local directives are not kept: " + error);
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

file_failure test_candidate(const launcher_paths& paths, const launch_options& options, const std::string& text,
                            const reporter* to) {
    const std::string candidate =
        translation_files_of(paths.state_directory, paths.agent_directory, options.file).candidate;
    const std::string error = write_new_file(candidate, text);
    if (!error.empty()) {
        return {error};
    }
    file_failure failure = test_with_sshd(paths, candidate, to);
    unlink(candidate.c_str());
    return failure;
}

/// Judges local directives without keeping anything.
std::vector<std::string> try_local_directives(const launcher_paths& paths, const launch_options& options,
                                              const file_translator& translator, const std::string& text,
                                              const local_source& source, translation& result) {
    return judge_local_directives(
        [&](const std::vector<local_file>& files) { return translator.translate_file(text, options.file, files); },
        source, [&](const std::string& candidate) { return test_candidate(paths, options, candidate, nullptr); },
        result);
}

/// Puts the text on standard input in the place of a file's. Reports why it cannot.
bool replace_with_input(const launcher_paths& paths, const launch_options& options, const reporter& to,
                        local_source& source) {
    const bool is_own = options.judged_local == "own";
    const std::string path =
        local_file_path(paths.local_directory, is_own ? vrf_of_server_file(options.file) : std::string_view());
    std::string input;
    const platform_status status = file_read_to_end(STDIN_FILENO, largest_local_file, input);
    if (status != PLATFORM_OK) {
        report(to, severity::error,
               text_format("the local directives on standard input cannot be read: %s",
                           std::strerror(static_cast<int>(status))));
        return false;
    }
    std::erase_if(source.files, [&](const local_file& one) { return one.path == path; });
    std::erase_if(source.problems, [&](const std::string& problem) { return problem.starts_with(path + " "); });
    source.files.insert(is_own ? source.files.begin() : source.files.end(), {path, input});
    return true;
}

std::string judgement_text(const translation& result, const std::vector<std::string>& problems) {
    constexpr const char* words[] = {"accepted", "overruled", "refused"};
    std::string text;
    for (const local_verdict& one : result.local.verdicts) {
        text += text_format("%s\t%s\t%s\t%s\t%s\n", words[static_cast<size_t>(one.outcome)],
                            one.is_reserved_to_root ? "root" : "-", local_place_text(one.path, one.line).c_str(),
                            one.directive.c_str(), one.text.c_str());
    }
    // Those of whole files, and sshd's own.
    const std::vector<std::string> refusals = result.local.refusals();
    for (const std::string& problem : problems) {
        if (std::find(refusals.begin(), refusals.end(), problem) == refusals.end()) {
            text += "refused\t-\t\t\t" + problem + "\n";
        }
    }
    return text + "\n" + result.text;
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

translation file_translator::translate_file(std::string_view text, std::string_view name,
                                            const std::vector<local_file>& local_files) const {
    const bool has_keys_program = access(paths_.user_keys_program.c_str(), X_OK) == 0;
    const std::string network_namespace = paths_.namespace_directory + "vrf-" + std::string(vrf_of_server_file(name));
    return translate(
        {.text = text,
         .source_name = name,
         .known = &known_,
         .key_is_usable = is_readable_file,
         .user_keys_program = has_keys_program ? paths_.user_keys_program : std::string_view(),
         .verbose_places = session_reporter_of(paths_).empty() ? "" : server_verbose_places,
         .sessions_are_wrapped = missing_wrapper_part(paths_).empty(),
         .local_files = local_files,
         .has_address = [&](const std::string& address) { return namespace_has_address(network_namespace, address); }});
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
    file_translator translator(paths);
    file_failure failure = translate_and_report(paths, translator, text, options.file, to);
    prepared.config = files.current;
    if (!failure) {
        const std::string accepted = accepted_local_path(paths, options.file);
        const local_choice choice = choose_local_directives(
            [&](const std::vector<local_file>& local) { return translator.translate_file(text, options.file, local); },
            read_local_files(paths.local_directory, vrf_of_server_file(options.file)), read_accepted_files(accepted),
            [&](const std::string& candidate) { return adopt(paths, files, candidate, to); });
        failure = choice.failure;
        prepared.limits = choice.result.limits;
        if (!failure) {
            report_local_directives(choice, to);
            record.local = choice.in_use;
            record.local_problems = choice.problems;
            keep_local_directives(accepted, choice, to);
        }
    } else {
        prepared.limits = translator.translate_file(text, options.file, {}).limits;
    }
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
    file_translator translator(paths);
    std::string error = translate_and_report(paths, translator, text, options.file, to).text;
    if (!error.empty()) {
        translated = translator.translate_file(text, options.file, {}).text;
        report(to, severity::error, error);
        return launch_no_good_file;
    }
    const local_source source = read_local_files(paths.local_directory, vrf_of_server_file(options.file));
    const bool has_local = !source.files.empty() || !source.problems.empty();
    translation result;
    if (has_local) {
        const std::vector<std::string> problems =
            try_local_directives(paths, options, translator, text, source, result);
        translated = result.text;
        if (problems.empty()) {
            return launch_ready;
        }
        for (const std::string& problem : problems) {
            report(to, severity::error, problem);
        }
        result = translator.translate_file(text, options.file, {});
    } else {
        result = translator.translate_file(text, options.file, {});
        translated = result.text;
    }
    const file_failure failure = test_candidate(paths, options, result.text, &to);
    if (!failure) {
        return has_local ? launch_local_refused : launch_ready;
    }
    report(to, severity::error, failure.text);
    return launch_no_good_file;
}

launch_status judge_local(const launcher_paths& paths, const launch_options& options, const reporter& to,
                          std::string& judgement) {
    std::string text;
    std::string unreadable;
    // A VRF that has no server yet would get a copy of the default file.
    launch_options read = options;
    if (access(options.file.c_str(), F_OK) != 0) {
        read.file = paths.default_server_file;
    }
    const launch_status status = read_server_file(paths, read, to, text, unreadable);
    if (status != launch_ready) {
        return status;
    }
    file_translator translator(paths);
    const std::string error = translator.prepare();
    if (!error.empty()) {
        report(to, severity::error, error);
        return launch_no_good_file;
    }
    local_source source = read_local_files(paths.local_directory, vrf_of_server_file(options.file));
    if (options.judged_local != "present" && !replace_with_input(paths, options, to, source)) {
        return launch_file_unreadable;
    }
    translation result;
    const std::vector<std::string> problems = try_local_directives(paths, options, translator, text, source, result);
    judgement = judgement_text(result, problems);
    return launch_ready;
}

std::string accepted_local_path(const launcher_paths& paths, const std::string& server_file) {
    return translation_files_of(paths.accepted_local_directory, paths.agent_directory, server_file).current;
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
