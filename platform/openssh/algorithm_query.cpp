#include "openssh/algorithm_query.h"

#include <chrono>

#include "common/text.h"
#include "openssh/run_programs.h"
#include "openssh/state_files.h"
#include "openssh/text.h"
#include "openssh/turn.h"

namespace openssh {

namespace {

constexpr std::chrono::seconds query_limit{10};
constexpr std::string_view cache_title = "ssh algorithms 1";
constexpr std::string_view cache_end = "end";

/// The arguments of `ssh -Q`, in the order of the kinds.
constexpr const char* query_words[algorithm_kind_count] = {"cipher", "mac", "kex", "HostKeyAlgorithms"};

std::string ask_ssh(const std::string& ssh, known_algorithms& known) {
    std::vector<std::vector<std::string>> programs;
    for (const char* word : query_words) {
        programs.push_back({ssh, "-Q", word});
    }
    const std::vector<program_result> results = run_programs(programs, query_limit);
    known_algorithms answer;
    for (size_t kind = 0; kind < algorithm_kind_count; ++kind) {
        const program_result& result = results[kind];
        for (const std::string_view name : split(result.output, " \t\r\n")) {
            answer.names[kind].emplace_back(name);
        }
        if (result.status != 0 || answer.names[kind].empty()) {
            const std::string failure =
                result.failure.empty() ? text_format("exit status %d", result.status) : result.failure;
            return text_format("%s -Q %s lists no algorithms: %s %s", ssh.c_str(), query_words[kind], failure.c_str(),
                               shown(trimmed(result.errors)).c_str());
        }
    }
    known = std::move(answer);
    return {};
}

}  // namespace

std::string format_algorithm_cache(std::string_view identity, const known_algorithms& known) {
    std::string text(cache_title);
    text.append("\n").append(identity).append("\n");
    for (size_t kind = 0; kind < algorithm_kind_count; ++kind) {
        text.append(query_words[kind]);
        for (const std::string& name : known.names[kind]) {
            text.append(" ").append(name);
        }
        text.append("\n");
    }
    return text.append(cache_end).append("\n");
}

bool parse_algorithm_cache(std::string_view text, std::string_view identity, known_algorithms& known) {
    const auto lines = split(text, "\n");
    constexpr size_t lines_before_names = 2;
    if (lines.size() != lines_before_names + algorithm_kind_count + 1 || lines[0] != cache_title ||
        lines[1] != identity || lines.back() != cache_end) {
        return false;
    }
    known_algorithms answer;
    for (size_t kind = 0; kind < algorithm_kind_count; ++kind) {
        const auto words = split(lines[lines_before_names + kind], " ");
        if (words.size() < 2 || words[0] != query_words[kind]) {
            return false;
        }
        answer.names[kind].assign(words.begin() + 1, words.end());
    }
    known = std::move(answer);
    return true;
}

namespace {

bool read_cache(const std::string& cache_file, const std::string& identity, known_algorithms& known) {
    std::string text;
    return read_file(cache_file, text).empty() && parse_algorithm_cache(text, identity, known);
}

}  // namespace

std::string query_algorithms(const std::string& ssh, const std::string& cache_file, known_algorithms& known) {
    std::string identity;
    std::string error = identify_file(ssh, identity);
    if (!error.empty() || read_cache(cache_file, identity, known)) {
        return error;
    }
    const turn to_ask(cache_file.substr(0, cache_file.rfind('/')), turn_limit);
    if (read_cache(cache_file, identity, known)) {
        return {};
    }
    error = ask_ssh(ssh, known);
    if (error.empty()) {
        replace_file(cache_file, format_algorithm_cache(identity, known));
    }
    return error;
}

}  // namespace openssh
