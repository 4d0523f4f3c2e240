#include "linux/rehearsal/file_judgement.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "common/file_descriptor.h"
#include "common/files.h"
#include "common/text.h"
#include "linux/local_directives/local_files.h"

namespace {

constexpr char launcher[] = "/pkg/bin/sshd";
constexpr char default_file[] = "/var/opt/norvo/norvossh/sshd_config";
constexpr std::string_view vrf_file_prefix = "/var/opt/norvo/norvossh/sshd_config_";
constexpr char client[] = "/pkg/bin/ssh_csm";
constexpr char client_file[] = "/var/opt/norvo/norvossh/ssh_config";

// Of the server's launcher.
constexpr int rejected_status = 4;
constexpr int local_refused_status = 9;  ///< the file is accepted, but not with the local directives
constexpr size_t errors_max = size_t{64} * 1024;
constexpr size_t shown_words = 1000;

enum class rank { accepted, local_refused, rejected };

struct verdict {
    rank given = rank::accepted;
    std::string words;
    std::string problem;  ///< why there is no verdict; empty if there is one
};

/// How a program ended that tests a file.
struct test_result {
    int status = 0;       ///< as from waitpid
    std::string errors;   ///< what it wrote to standard error
    std::string problem;  ///< why it could not be run; empty if it was
};

int start(const std::vector<std::string>& words, int errors, pid_t* child) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
    const int error = posix_spawn(child, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

/// Has the launcher mark each line with its level, as it does for the journal.
void ask_for_levels(int errors) {
    struct stat status = {};
    fstat(errors, &status);
    const std::string stream = std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino);
    setenv("JOURNAL_STREAM", stream.c_str(), 1);
}

/// Waits without a limit: whoever waits for the rehearsal has one.
test_result run_test(const std::vector<std::string>& words) {
    const file_descriptor errors(memfd_create("errors", MFD_CLOEXEC));
    ask_for_levels(errors.get());
    pid_t child = -1;
    test_result result;
    const int error = errors.get() < 0 ? errno : start(words, errors.get(), &child);
    if (error != 0) {
        result.problem = text_format("%s cannot be run: %s", words.front().c_str(), strerror(error));
        return result;
    }
    while (waitpid(child, &result.status, 0) < 0) {
        if (errno != EINTR) {
            result.problem = text_format("%s cannot be waited for: %s", words.front().c_str(), strerror(errno));
            return result;
        }
    }
    result.errors.resize(errors_max);
    const ssize_t count = pread(errors.get(), result.errors.data(), result.errors.size(), 0);
    result.errors.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return result;
}

/// The lines that begin with a prefix, without it, as one line.
std::string lines_with(std::string_view text, const std::string& prefix) {
    std::string lines;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (line.starts_with(prefix)) {
            lines += lines.empty() ? "" : "; ";
            lines += line.substr(prefix.size());
        }
        text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
    return text_escape(lines, shown_words);
}

verdict judge_server(const std::string& path) {
    const test_result result = run_test({launcher, "-t", "-f", path});
    const int status = WIFEXITED(result.status) ? WEXITSTATUS(result.status) : -1;
    const std::string words = lines_with(result.errors, "<" + std::to_string(LOG_ERR) + ">" + path + ": ");
    if (!result.problem.empty() || status == 0 || status == rejected_status || status == local_refused_status) {
        return {status == rejected_status        ? rank::rejected
                : status == local_refused_status ? rank::local_refused
                                                 : rank::accepted,
                words, result.problem};
    }
    return {
        rank::accepted, {}, text_format("%s ended with wait status 0x%x: %s", launcher, result.status, words.c_str())};
}

/// Has ssh print its settings. It connects to nobody.
verdict judge_client() {
    const test_result result = run_test({client, "-G", "localhost"});
    return {result.status != 0 ? rank::rejected : rank::accepted, lines_with(result.errors, ""), result.problem};
}

verdict judge(const std::string& path) {
    return path == client_file ? judge_client() : judge_server(path);
}

/// Files with the same content; only the first is judged.
using file_group = std::vector<const private_change*>;

/// The files to judge: the servers' files, grouped by content, and the client's file.
std::vector<file_group> different_files(const std::vector<private_change>& changes) {
    // A VRF's own local directives make a difference, too.
    std::map<std::pair<std::string_view, std::string>, file_group> servers;
    std::vector<file_group> different;
    const private_change* common = nullptr;
    for (const private_change& change : changes) {
        if (!change.after) {
            continue;
        }
        if (change.file.path == default_file) {
            common = &change;
        } else if (change.file.path == client_file) {
            different.push_back({&change});
        } else if (change.file.path.starts_with(vrf_file_prefix)) {
            const std::string vrf_name = change.file.path.substr(vrf_file_prefix.size());
            const std::string own = access(local_file_path_of(vrf_name).c_str(), F_OK) == 0 ? vrf_name : "";
            servers[{*change.after, own}].push_back(&change);
        }
    }
    if (servers.empty() && common != nullptr) {
        different.push_back({common});
    }
    for (auto& [content, group] : servers) {
        different.push_back(std::move(group));
    }
    return different;
}

/// Whether another content fares no better.
bool is_rejected_with(const std::string& path, const std::string& content, rank least, std::string& problem) {
    if (const platform_status status = file_replace(path, content, {.mode = 0644}); status != PLATFORM_OK) {
        problem = text_format("cannot write %s: %s", path.c_str(), platform_status_text(status));
        return false;
    }
    const verdict now = judge(path);
    problem = now.problem;
    return now.given >= least;
}

/// Whether the current versions of all files in the group are rejected as well. The default file stands in for a
/// server's file that does not exist.
bool are_rejected_now(const file_group& group, const private_folders& folders, rank least, std::string& problem) {
    std::set<std::string> rejected;
    for (const private_change* change : group) {
        const std::string& path = change->file.path;
        const std::optional<std::string> before =
            change->before || path == client_file ? change->before : folders.machine_content(default_file);
        if (!before || (!rejected.contains(*before) && !is_rejected_with(path, *before, least, problem))) {
            return false;
        }
        rejected.insert(*before);
    }
    return true;
}

std::vector<std::string> other_paths(const file_group& group) {
    std::vector<std::string> paths;
    paths.reserve(group.size());
    for (size_t i = 1; i < group.size(); ++i) {
        paths.push_back(group[i]->file.path);
    }
    return paths;
}

/// Combines files that are rejected with the same message, such as servers' files that differ only in their ports.
void add_rejection(std::vector<rehearsed_rejection>& rejections, rehearsed_rejection rejection) {
    for (rehearsed_rejection& earlier : rejections) {
        if (earlier.words == rejection.words && earlier.was_rejected == rejection.was_rejected &&
            earlier.path != client_file) {
            earlier.others.push_back(rejection.path);
            earlier.others.insert(earlier.others.end(), rejection.others.begin(), rejection.others.end());
            return;
        }
    }
    rejections.push_back(std::move(rejection));
}

}  // namespace

std::vector<rehearsed_rejection> judge_files(const std::vector<private_change>& changes, const private_folders& folders,
                                             std::string& problem) {
    std::vector<rehearsed_rejection> rejections;
    for (const file_group& group : different_files(changes)) {
        const std::string& path = group.front()->file.path;
        const verdict found = judge(path);
        problem = found.problem;
        if (problem.empty() && found.given != rank::accepted) {
            add_rejection(rejections, {path, found.words, are_rejected_now(group, folders, found.given, problem),
                                       other_paths(group)});
        }
        if (!problem.empty()) {
            break;
        }
    }
    return rejections;
}
