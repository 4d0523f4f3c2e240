#include "openssh/local_choice.h"

#include <optional>

#include "common/number.h"
#include "openssh/config_line.h"
#include "openssh/text.h"

namespace openssh {

namespace {

/// The number of the line that sshd names: "FILE line 12: ...".
std::optional<size_t> line_named_in(std::string_view words) {
    constexpr std::string_view before = " line ";
    const size_t start = words.find(before);
    if (start == std::string_view::npos) {
        return std::nullopt;
    }
    words.remove_prefix(start + before.size());
    return number_parse<size_t>(words.substr(0, words.find_first_not_of("0123456789")), 1);
}

/// What is left of sshd's words behind the line's number.
std::string_view reason_in(std::string_view words) {
    const size_t line = words.find(" line ");
    const size_t colon = words.find(": ", line == std::string_view::npos ? 0 : line);
    return colon == std::string_view::npos ? words : words.substr(colon + 2);
}

}  // namespace

std::string local_words(std::string_view text, const file_failure& failure) {
    std::string place;
    if (const std::optional<size_t> wanted = line_named_in(failure.words)) {
        for_each_line(text, [&](size_t number, std::string_view line) {
            if (number + 1 == *wanted) {
                place = local_place_in(line);
            }
        });
    }
    return place.empty() ? "sshd rejects them: " + failure.whole()
                         : place + ": refused by sshd: " + std::string(reason_in(failure.words));
}

std::vector<std::string> judge_local_directives(const local_translation& translated, const local_source& source,
                                                const text_test& test, translation& result) {
    std::vector<std::string> problems = source.problems;
    result = translated(source.files);
    const std::vector<std::string> refusals = result.local.refusals();
    problems.insert(problems.end(), refusals.begin(), refusals.end());
    if (problems.empty()) {
        if (const file_failure failure = test(result.text)) {
            problems.push_back(local_words(result.text, failure));
        }
    }
    return problems;
}

local_choice choose_local_directives(const local_translation& translated, const local_source& source,
                                     const std::vector<local_file>& accepted, const text_test& test) {
    local_choice choice;
    if (!source.files.empty() || !source.problems.empty()) {
        choice.problems = judge_local_directives(translated, source, test, choice.result);
        if (choice.problems.empty()) {
            choice.in_use = launch_local::current;
            choice.files = source.files;
            choice.problems = choice.result.local.not_in_force;
            return choice;
        }
        if (!accepted.empty() && accepted != source.files &&
            judge_local_directives(translated, {accepted, {}}, test, choice.result).empty()) {
            choice.in_use = launch_local::last_accepted;
            choice.files = accepted;
            return choice;
        }
        choice.in_use = launch_local::left_out;
    }
    choice.result = translated({});
    choice.failure = test(choice.result.text);
    return choice;
}

}  // namespace openssh
