#include "openssh/sshd_acceptance.h"

#include <chrono>
#include <vector>

#include "common/text.h"
#include "openssh/accepted_files.h"
#include "openssh/local_directives.h"
#include "openssh/run_programs.h"
#include "openssh/state_files.h"
#include "openssh/text.h"
#include "openssh/turn.h"

namespace openssh {

namespace {

constexpr std::chrono::seconds test_limit{20};

std::string first_line(std::string_view text) {
    const auto lines = split(text, "\r\n");
    return lines.empty() ? std::string() : shown(lines.front());
}

/// sshd reads the criteria of Match blocks only for a connection, here an imagined one.
std::vector<std::string> test_command(const launcher_paths& paths, const std::string& file) {
    std::string text;
    if (!read_file(file, text).empty() || !has_local_directives(text)) {
        return {paths.sshd, "-t", "-f", file};
    }
    return {paths.sshd, "-T", "-f", file, "-C", "user=root,host=localhost,addr=127.0.0.1,laddr=127.0.0.1,lport=22"};
}

}  // namespace

file_failure test_with_sshd(const launcher_paths& paths, const std::string& file, const reporter* to,
                            bool* without_a_word) {
    const program_result result = run_programs({test_command(paths, file)}, test_limit).front();
    const bool taken = result.status == 0;
    if (without_a_word != nullptr) {
        *without_a_word = taken && result.errors.empty();
    }
    if (to != nullptr) {
        report_words(*to, taken ? severity::warning : severity::error, "sshd says: ", result.errors);
    }
    if (!result.failure.empty()) {
        return {text_format("%s -t %s", paths.sshd.c_str(), result.failure.c_str())};
    }
    if (taken) {
        return {};
    }
    return {text_format("sshd rejects the file (exit status %d)", result.status), first_line(result.errors)};
}

file_failure test_new_text(const launcher_paths& paths, const std::string& file, const std::string& text,
                           const reporter* to) {
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

}  // namespace openssh
