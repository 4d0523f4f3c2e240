#include "linux/access_lists/rule_check.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "common/child_process.h"
#include "common/file_descriptor.h"
#include "common/number.h"
#include "common/text.h"

namespace {

using steady = std::chrono::steady_clock;

constexpr char nft_program[] = "/usr/sbin/nft";
constexpr size_t words_max = size_t{64} * 1024;
constexpr int rejected_status = 1;      ///< nft's own
constexpr int no_verdict_status = 125;  ///< of a child that could not become nft

/// The child: executes nft in empty namespaces. Nothing in the machine's own namespaces can be reached, and without a new
/// namespace nft does not run at all.
[[noreturn]] void become_nft(int rules, int words, pid_t parent) {
    const bool prepared = child_process_prepare(parent);
    dup2(rules, STDIN_FILENO);
    dup2(words, STDOUT_FILENO);
    dup2(words, STDERR_FILENO);
    if (!prepared) {
        _exit(no_verdict_status);
    }
    if (unshare(CLONE_NEWNET) != 0) {
        dprintf(STDERR_FILENO, "no network namespace can be created: %s", strerror(errno));
        _exit(no_verdict_status);
    }
    execl(nft_program, "nft", "-c", "-f", "-", nullptr);
    dprintf(STDERR_FILENO, "%s cannot be run: %s", nft_program, strerror(errno));
    _exit(no_verdict_status);
}

/// A running nft.
class nft_run {
  public:
    explicit nft_run(std::string_view text) {
        if (!start(text)) {
            failure_ = text_format("nft cannot be started: %s", strerror(errno));
        }
    }
    nft_run(const nft_run&) = delete;
    nft_run& operator=(const nft_run&) = delete;
    ~nft_run() { end(true); }

    rule_check finish(steady::time_point deadline) {
        if (child_ < 0) {
            return {rule_verdict::unknown, failure_};
        }
        const bool overdue = !child_process_ends_before(child_, deadline);
        const int status = end(overdue);
        if (overdue) {
            return {rule_verdict::unknown, "nft did not end in time"};
        }
        const int exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return {exit_status == 0                 ? rule_verdict::loadable
                : exit_status == rejected_status ? rule_verdict::rejected
                                                 : rule_verdict::unknown,
                words(status)};
    }

  private:
    bool start(std::string_view text) {
        const file_descriptor rules(memfd_create("rules", MFD_CLOEXEC));
        if (rules.get() < 0 || words_.get() < 0 || !write_all(rules.get(), text)) {
            return false;
        }
        lseek(rules.get(), 0, SEEK_SET);
        const pid_t parent = getpid();
        child_ = fork();
        if (child_ == 0) {
            become_nft(rules.get(), words_.get(), parent);
        }
        return child_ > 0;
    }

    static bool write_all(int fd, std::string_view text) {
        while (!text.empty()) {
            const ssize_t count = write(fd, text.data(), text.size());
            if (count < 0 && errno != EINTR) {
                return false;
            }
            text.remove_prefix(count < 0 ? 0 : static_cast<size_t>(count));
        }
        return true;
    }

    /// Reaps the child, after killing it if necessary. Returns its wait status.
    int end(bool kill_first) {
        if (child_ < 0) {
            return -1;
        }
        if (kill_first) {
            kill(child_, SIGKILL);
        }
        return child_process_reap(std::exchange(child_, -1));
    }

    std::string words(int status) const {
        std::string text(words_max, '\0');
        const ssize_t count = pread(words_.get(), text.data(), text.size(), 0);
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return !text.empty()         ? text
               : WIFSIGNALED(status) ? text_format("nft was killed by signal %d", WTERMSIG(status))
                                     : text_format("nft ended with status %d", WEXITSTATUS(status));
    }

    pid_t child_ = -1;
    const file_descriptor words_{memfd_create("words", MFD_CLOEXEC)};
    std::string failure_;
};

/// "/dev/stdin:8:17-40: Error: message": the line and the message.
bool parse_complaint(std::string_view line, rule_complaint& complaint) {
    constexpr std::string_view source = "/dev/stdin:";
    constexpr std::string_view error = "Error: ";
    const size_t message = line.find(error);
    if (message == std::string_view::npos) {
        return false;
    }
    complaint = {0, std::string(line.substr(message + error.size()))};
    if (line.starts_with(source)) {
        const std::string_view place = line.substr(source.size());
        complaint.line = number_parse<uint32_t>(place.substr(0, place.find(':'))).value_or(0);
    }
    return true;
}

}  // namespace

std::vector<rule_check> check_rules(const std::vector<std::string_view>& texts, std::chrono::milliseconds limit) {
    const steady::time_point deadline = steady::now() + limit;
    std::vector<std::unique_ptr<nft_run>> runs;
    runs.reserve(texts.size());
    for (const std::string_view text : texts) {
        runs.push_back(std::make_unique<nft_run>(text));
    }
    std::vector<rule_check> checks;
    checks.reserve(runs.size());
    for (const auto& run : runs) {
        checks.push_back(run->finish(deadline));
    }
    return checks;
}

std::vector<rule_complaint> rule_complaints(std::string_view words) {
    std::vector<rule_complaint> complaints;
    while (!words.empty()) {
        const std::string_view line = words.substr(0, words.find('\n'));
        rule_complaint complaint;
        if (parse_complaint(line, complaint)) {
            complaints.push_back(std::move(complaint));
        }
        words.remove_prefix(std::min(words.size(), line.size() + 1));
    }
    return complaints;
}
