#include "openssh/comparison.h"

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <vector>

#include "common/launch_record.h"
#include "common/text.h"
#include "openssh/launch.h"
#include "openssh/local_choice.h"
#include "openssh/run_programs.h"
#include "openssh/state_files.h"
#include "openssh/text.h"

namespace openssh {

namespace {

constexpr std::chrono::seconds settings_limit{5};
constexpr std::string_view record_suffix = "~launch";

/// Lines and how often each occurs, regardless of their order.
using text_lines = std::multiset<std::string, std::less<>>;

text_lines lines_of(std::string_view text) {
    text_lines lines;
    for (const std::string_view line : split(text, "\n")) {
        if (!line.starts_with('#')) {
            lines.emplace(line);
        }
    }
    return lines;
}

/// Returns the lines that occur in only one of the texts, or more often in one than in the other.
text_lines lines_of_one(const text_lines& left, const text_lines& right) {
    text_lines difference;
    std::set_symmetric_difference(left.begin(), left.end(), right.begin(), right.end(),
                                  std::inserter(difference, difference.end()));
    return difference;
}

std::string first_words(const text_lines& lines) {
    std::set<std::string> words;
    for (const std::string& line : lines) {
        words.insert(line.substr(0, line.find(' ')));
    }
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

/// Returns the names of the settings in which two files differ or, if sshd cannot read one of the files, the keywords of
/// the lines that differ.
std::string differing_settings(const launcher_paths& paths, const std::string& used, const std::string& candidate,
                               const text_lines& differing_lines) {
    const std::vector<program_result> answers =
        run_programs({{paths.sshd, "-T", "-f", used}, {paths.sshd, "-T", "-f", candidate}}, settings_limit);
    if (answers[0].status != 0 || answers[1].status != 0) {
        return first_words(differing_lines);
    }
    return first_words(lines_of_one(lines_of(answers[0].output), lines_of(answers[1].output)));
}

/// Returns the records of the running servers that were started with their current file, by the names of their translated
/// files.
std::map<std::string, launch_record> running_servers(const std::string& state_directory) {
    std::map<std::string, launch_record> servers;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(state_directory.c_str()), closedir);
    while (const dirent* entry = directory != nullptr ? readdir(directory.get()) : nullptr) {
        const std::string_view name = entry->d_name;
        std::string text;
        launch_record record;
        if (name.ends_with(record_suffix) && read_file(state_directory + "/" + entry->d_name, text).empty() &&
            launch_record_parse(text, record) && record.in_use == launch_file::current && record.process > 0 &&
            (kill(record.process, 0) == 0 || errno == EPERM)) {
            servers.emplace(name.substr(0, name.size() - record_suffix.size()), std::move(record));
        }
    }
    return servers;
}

class server_comparer {
  public:
    server_comparer(const launcher_paths& paths, const file_translator& translator)
        : paths_(paths), translator_(translator) {}

    /// The settings in which a server differs; empty if there are none.
    std::string compare(const std::string& name, const launch_record& record) {
        const std::string used = paths_.state_directory + "/" + name;
        std::string text_used;
        std::string source;
        if (!read_file(used, text_used).empty() ||
            (!read_file(launch_source_path(used), source).empty() && !read_file(record.server_file, source).empty())) {
            return {};
        }
        const text_lines lines_used = lines_of(text_used);
        const local_choice choice = choose_local_directives(
            [&](const std::vector<local_file>& files) {
                return translator_.translate_file(source, record.server_file, files);
            },
            read_local_files(paths_.local_directory, vrf_of_server_file(record.server_file)),
            read_accepted_files(accepted_local_path(paths_, record.server_file)),
            [&](const std::string& text) {
                return lines_of(text) == lines_used || !has_local_directives(text) ? file_failure{} : test(used, text);
            });
        const text_lines difference = lines_of_one(lines_used, lines_of(choice.result.text));
        if (difference.empty()) {
            update_record(used, record, choice);
            return {};
        }
        return settings_of(used, choice.result.text, difference);
    }

  private:
    /// Directives that have become wrong, or right again, without another effect. The record may already be that of a newer
    /// server.
    static void update_record(const std::string& used, const launch_record& compared, const local_choice& choice) {
        const std::string path = launch_record_path(used);
        std::string text;
        launch_record record;
        const bool is_current =
            read_file(path, text).empty() && launch_record_parse(text, record) && record.process == compared.process;
        if (is_current && (record.local != choice.in_use || record.local_problems != choice.problems)) {
            record.local = choice.in_use;
            record.local_problems = choice.problems;
            replace_file(path, launch_record_format(record));
        }
    }

    file_failure test(const std::string& used, const std::string& text) const {
        const std::string candidate = text_format("%s~compared.%d", used.c_str(), static_cast<int>(getpid()));
        const std::string error = write_new_file(candidate, text);
        if (!error.empty()) {
            return {error};
        }
        file_failure failure = test_new_text(paths_, candidate, text, nullptr);
        unlink(candidate.c_str());
        return failure;
    }

    /// Servers that differ in the same lines differ in the same settings.
    const std::string& settings_of(const std::string& used, const std::string& text, const text_lines& difference) {
        const auto [found, is_new] = settings_.try_emplace(difference);
        if (is_new) {
            const std::string candidate = text_format("%s~compared.%d", used.c_str(), static_cast<int>(getpid()));
            found->second = write_new_file(candidate, text).empty()
                                ? differing_settings(paths_, used, candidate, difference)
                                : first_words(difference);
            unlink(candidate.c_str());
        }
        return found->second;
    }

    const launcher_paths& paths_;
    const file_translator& translator_;
    std::map<text_lines, std::string> settings_;
};

}  // namespace

std::string compare_running_servers(const launcher_paths& paths, std::string& lines) {
    lines.clear();
    const std::map<std::string, launch_record> servers = running_servers(paths.state_directory);
    if (servers.empty()) {
        return {};
    }
    file_translator translator(paths);
    std::string error = translator.prepare();
    if (!error.empty()) {
        return error;
    }
    server_comparer comparer(paths, translator);
    for (const auto& [name, record] : servers) {
        const std::string settings = comparer.compare(name, record);
        if (!settings.empty()) {
            lines.append(name).append(" ").append(settings).append("\n");
        }
    }
    return {};
}

}  // namespace openssh
