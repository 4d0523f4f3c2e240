#include "linux/local_directives/local_judgement.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "common/files.h"
#include "common/text.h"
#include "linux/process/child_output.h"

namespace {

constexpr char judging_launcher[] = "/pkg/bin/sshd";
constexpr char stock_server[] = "/pkg/libexec/norvosshd";
constexpr char examined_file[] = "/tmp/examined_sshd_config";
constexpr char server_files[] = "/var/opt/norvo/norvossh/sshd_config";
constexpr std::chrono::milliseconds judgement_limit{10000};

/// Standard input with a text, standard error with the output, so that the launcher's reason is not lost.
void redirect(int output, const std::string& input) {
    const int text = memfd_create("local directives", MFD_CLOEXEC);
    const ssize_t written = write(text, input.data(), input.size());
    lseek(text, 0, SEEK_SET);
    dup2(written == static_cast<ssize_t>(input.size()) ? text : -1, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
}

std::vector<std::string> fields_of(std::string_view line) {
    std::vector<std::string> fields;
    for (;;) {
        const size_t end = line.find('\t');
        fields.emplace_back(line.substr(0, end));
        if (end == std::string_view::npos) {
            return fields;
        }
        line.remove_prefix(end + 1);
    }
}

}  // namespace

bool local_judgement::is_refused() const {
    return std::any_of(directives.begin(), directives.end(),
                       [](const judged_directive& one) { return one.outcome == "refused"; });
}

local_judgement local_directives_judge(std::string_view vrf_name, const std::optional<proposed_local_file>& proposed) {
    const std::string file = vrf_name.empty() ? server_files : server_files + ("_" + std::string(vrf_name));
    const char* which = !proposed.has_value() ? "present" : proposed->is_own ? "own" : "all";
    const std::string input = proposed.has_value() ? proposed->text : std::string();
    std::string text;
    local_judgement judgement;
    const platform_status status = child_output(
        [&](int output) {
            redirect(output, input);
            execl(judging_launcher, judging_launcher, "-l", which, "-f", file.c_str(), nullptr);
            return EXIT_FAILURE;
        },
        judgement_limit, text);
    if (status != PLATFORM_OK) {
        judgement.failure = std::string("the launcher could not judge them: ") + platform_status_text(status) +
                            "; the agent's journal may say more";
        return judgement;
    }
    std::string_view rest = text;
    while (!rest.empty() && rest[0] != '\n') {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        const std::vector<std::string> fields = fields_of(line);
        if (fields.size() == 5) {
            judgement.directives.push_back({fields[0], fields[1] == "root", fields[2], fields[3], fields[4]});
        }
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    }
    judgement.translation = rest.substr(std::min<size_t>(rest.size(), 1));
    return judgement;
}

std::string local_settings_for(const std::string& translation, const std::string& user, const std::string& address,
                               unsigned port) {
    const std::string connection = text_format("user=%s,host=%s,addr=%s,laddr=%s,lport=%u", user.c_str(),
                                               address.c_str(), address.c_str(), address.c_str(), port);
    std::string settings;
    if (file_write_new(examined_file, translation, {}) == PLATFORM_OK) {
        child_output(
            [&](int output) {
                redirect(output, {});
                execl(stock_server, stock_server, "-T", "-f", examined_file, "-C", connection.c_str(), nullptr);
                return EXIT_FAILURE;
            },
            child_output_limit, settings);
        unlink(examined_file);
    }
    return settings;
}
