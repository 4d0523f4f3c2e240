#include "ssh_cfg_ctl/local.h"

#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>

#include "common/files.h"
#include "common/text.h"
#include "ssh_cfg_ctl/consent.h"
#include "ssh_cfg_ctl/file.h"
#include "ssh_cfg_ctl/print.h"

namespace {

constexpr char all_vrfs[] = "all";
constexpr size_t edited_text_max = size_t{64} * 1024;

control_json refused_edit(const std::string& message) {
    return control_answer(control_result::refused, message);
}

bool is_answered_with(const control_json& answer, control_result result) {
    return control_result_of_name(answer.value("result", "")) == result;
}

std::string escaped_member(const control_json& object, const char* name) {
    const control_json value = object.value(name, control_json());
    return value.is_string() ? text_escape(value.get<std::string>(), ctl_shown_max) : std::string();
}

/// "accepted   FILE, line 3: TEXT", with the remark on the next line.
std::string verdict_text(const control_json& verdict) {
    const std::string outcome = escaped_member(verdict, "outcome");
    const std::string place = escaped_member(verdict, "place");
    const std::string remark = escaped_member(verdict, "text");
    const std::string vrf = escaped_member(verdict, "vrf");
    std::string text = outcome + std::string(outcome.size() < 11 ? 11 - outcome.size() : 1, ' ');
    text += place.empty() ? remark : place + ": " + escaped_member(verdict, "directive");
    text += (vrf.empty() ? "" : " (VRF " + vrf + ')') + '\n';
    return text + (place.empty() || remark.empty() ? "" : "           " + remark + '\n');
}

std::string verdicts_text(const control_json& verdicts) {
    std::string text;
    for (const control_json& verdict : verdicts) {
        text += verdict_text(verdict);
    }
    return text.empty() ? "no local directives\n" : text;
}

/// The width of the column of directives; a longer one moves its place to the right.
size_t directives_width(const control_json& directives) {
    constexpr size_t usual = 40;
    size_t widest = 0;
    for (const control_json& directive : directives) {
        const size_t width = escaped_member(directive, "directive").size();
        widest = width <= usual ? std::max(widest, width) : widest;
    }
    return widest;
}

/// What is in force in one VRF.
std::string vrf_directives_text(const control_json& vrf) {
    const control_json directives = vrf.value("directives", control_json::array());
    const std::string in_use = escaped_member(vrf, "in_use");
    std::string text = "VRF " + escaped_member(vrf, "vrf");
    text += in_use == "last_accepted" ? ": the last accepted local directives, because the present ones are refused\n"
            : in_use == "left_out"    ? ": no local directives, because the present ones are refused\n"
            : directives.empty()      ? ": no local directives\n"
                                      : "\n";
    for (const control_json& problem : vrf.value("problems", control_json::array())) {
        text += "  " + text_escape(problem.is_string() ? problem.get<std::string>() : "", ctl_shown_max) + '\n';
    }
    const size_t width = directives_width(directives);
    for (const control_json& directive : directives) {
        const std::string line = escaped_member(directive, "directive");
        text += "  " + line + std::string(std::max(width, line.size()) - line.size() + 2, ' ') +
                escaped_member(directive, "place") + '\n';
    }
    return text;
}

std::string restarted_text(const control_json& answer) {
    std::string servers;
    for (const control_json& server : answer["restarted"]) {
        servers += (servers.empty() ? "" : ", ") + ctl_value_text(server);
    }
    const std::string path = escaped_member(answer, "path");
    const bool is_changed = answer.value("changed", false);
    return (path.empty() ? "" : (is_changed ? "changed    " : "unchanged  ") + path + '\n') +
           (servers.empty() ? "no server restarted\n" : "restarted  " + servers + '\n');
}

/// A private copy of a file, for the editor. It is removed at the end unless it is kept.
class edited_copy {
  public:
    edited_copy(const std::string& name, const std::string& text) {
        const char* folder = getenv("TMPDIR");
        folder_ = std::string(folder == nullptr || *folder == '\0' ? "/tmp" : folder) + "/ssh_cfg_ctl.XXXXXX";
        if (mkdtemp(folder_.data()) == nullptr) {
            problem_ = folder_ + ": " + strerror(errno);
            return;
        }
        path_ = folder_ + '/' + name + ".conf";
        const platform_status status = file_write_new(path_, text, {});
        problem_ = status == PLATFORM_OK ? "" : path_ + ": " + strerror(static_cast<int>(status));
    }
    ~edited_copy() {
        if (!is_kept_ && !path_.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(folder_, ignored);
        }
    }
    edited_copy(const edited_copy&) = delete;
    edited_copy& operator=(const edited_copy&) = delete;

    const std::string& problem() const { return problem_; }
    const std::string& path() const { return path_; }
    void keep() { is_kept_ = true; }

  private:
    std::string folder_;
    std::string path_;
    std::string problem_;
    bool is_kept_ = false;
};

/// Runs the operator's editor. Returns why it failed; empty on success.
std::string run_editor(const std::string& path) {
    const char* wanted = getenv("VISUAL");
    wanted = wanted != nullptr && *wanted != '\0' ? wanted : getenv("EDITOR");
    std::string command = std::string(wanted != nullptr && *wanted != '\0' ? wanted : "editor") + " \"$1\"";
    std::string words[] = {"sh", "-c", std::move(command), "sh", path};
    char* arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), words[4].data(), nullptr};
    pid_t child = -1;
    const int error = posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments, environ);
    if (error != 0) {
        return std::string("the editor could not be started: ") + strerror(error);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return std::string("the editor could not be waited for: ") + strerror(errno);
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? "" : "the editor failed";
}

bool has_terminals() {
    return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
}

/// Asks a question on the terminal. Only the whole word counts.
bool is_agreed(const std::string& question) {
    fprintf(stderr, "%s Type \"yes\" to confirm: ", question.c_str());
    fflush(stderr);
    std::array<char, 16> reply = {};
    return fgets(reply.data(), reply.size(), stdin) != nullptr && std::string_view(reply.data()) == "yes\n";
}

/// Has the operator edit the copy until it is accepted. Returns null, with the text, or the answer to give.
control_json edit_until_accepted(const ctl_connection_settings& settings, const std::string& vrf, edited_copy& copy,
                                 std::string& text) {
    for (;;) {
        if (const std::string failure = run_editor(copy.path()); !failure.empty()) {
            return control_answer(control_result::failed, failure + ", nothing has been changed");
        }
        const platform_status status = file_read(copy.path(), edited_text_max, text);
        if (status != PLATFORM_OK || !text_is_utf8(text)) {
            copy.keep();
            return control_answer(
                control_result::failed,
                copy.path() + ": " + (status == PLATFORM_OK ? "not valid UTF-8" : strerror(static_cast<int>(status))));
        }
        control_json checked = ctl_ask_to_the_end(settings, {{"call", "local_check"}, {"vrf", vrf}, {"text", text}});
        if (is_answered_with(checked, control_result::done)) {
            return {};
        }
        if (!checked.contains("data") || !has_terminals()) {
            copy.keep();
            checked["message"] =
                checked.value("message", "") + "\nnothing has been changed; your text is kept in " + copy.path();
            return checked;
        }
        fputs(verdicts_text(checked["data"]).c_str(), stderr);
        if (!is_agreed("Edit again?")) {
            copy.keep();
            return refused_edit("nothing has been changed; your text is kept in " + copy.path());
        }
    }
}

control_json store_request(const std::string& vrf, const std::string& text) {
    return {{"call", "local_set"}, {"vrf", vrf}, {"text", text}};
}

control_json edit(const ctl_connection_settings& settings, const std::string& vrf) {
    if (!has_terminals() && !settings.consents) {
        return refused_edit("local edit asks before it changes anything; without a terminal, use --yes");
    }
    control_json present = ctl_ask_to_the_end(settings, {{"call", "local_read"}, {"vrf", vrf}});
    if (!is_answered_with(present, control_result::done)) {
        return present;
    }
    const std::string before = present.value("data", "");
    edited_copy copy(vrf, before);
    if (!copy.problem().empty()) {
        return control_answer(control_result::failed, copy.problem());
    }
    std::string text;
    control_json problem = edit_until_accepted(settings, vrf, copy, text);
    if (!problem.is_null()) {
        return problem;
    }
    control_json request = store_request(vrf, text);
    request["expected"] = before;
    if (text != before && !settings.consents && !is_agreed("Replace " + escaped_member(present, "path") + '?')) {
        copy.keep();
        return refused_edit("not confirmed, nothing has been changed; your text is kept in " + copy.path());
    }
    control_json answer = ctl_ask_with_consent(settings, std::move(request));
    if (!is_answered_with(answer, control_result::done) && !is_answered_with(answer, control_result::not_in_force)) {
        copy.keep();
        answer["message"] = answer.value("message", "") + "\nyour text is kept in " + copy.path();
    }
    return answer;
}

/// Reads a file that the operator names. Returns null, with the text, or the answer to give.
control_json read_named_file(const std::string& name, std::string& text) {
    control_json problem;
    std::optional<std::string> content = ctl_read_file(name, problem);
    if (!content.has_value()) {
        return problem;
    }
    if (!text_is_utf8(*content)) {
        return refused_edit(text_escape(name, ctl_shown_max) + ": not valid UTF-8");
    }
    text = std::move(*content);
    return {};
}

control_json check(const ctl_connection_settings& settings, const std::vector<std::string>& arguments) {
    control_json request = {{"call", "local_check"}, {"vrf", arguments.size() > 1 ? arguments[1] : all_vrfs}};
    if (arguments.size() == 3) {
        std::string text;
        control_json problem = read_named_file(arguments[2], text);
        if (!problem.is_null()) {
            return problem;
        }
        request["text"] = text;
    }
    return ctl_ask_to_the_end(settings, request);
}

control_json store(const ctl_connection_settings& settings, const std::string& vrf, const std::string& file) {
    std::string text;
    control_json problem = read_named_file(file, text);
    return problem.is_null() ? ctl_ask_with_consent(settings, store_request(vrf, text)) : problem;
}

control_json show_in_force(const ctl_connection_settings& settings, const std::vector<std::string>& arguments) {
    control_json request = {{"call", "local_show"}};
    if (arguments.size() == 2) {
        request["vrf"] = arguments[1];
    }
    return ctl_ask_to_the_end(settings, request);
}

}  // namespace

control_json ctl_local(const ctl_connection_settings& settings, const std::vector<std::string>& arguments) {
    const std::string verb = arguments.empty() ? "" : arguments[0];
    const size_t count = arguments.size();
    for (size_t i = 1; i < count; ++i) {
        if (!text_is_utf8(arguments[i]) || (arguments[i].starts_with('-') && arguments[i] != "-")) {
            return {};
        }
    }
    if (verb == "show" && count <= 2) {
        return show_in_force(settings, arguments);
    }
    if (verb == "check" && count <= 3) {
        return check(settings, arguments);
    }
    if (verb == "edit" && count <= 2) {
        return edit(settings, count == 2 ? arguments[1] : all_vrfs);
    }
    if (verb == "set" && count == 3) {
        return store(settings, arguments[1], arguments[2]);
    }
    if (verb == "apply" && count == 1) {
        return ctl_ask_to_the_end(settings, {{"call", "local_apply"}});
    }
    return {};
}

std::string ctl_local_text(const control_json& answer) {
    if (answer.contains("restarted")) {
        return restarted_text(answer);
    }
    const control_json data = answer.value("data", control_json::array());
    const bool is_state = !data.empty() && data[0].is_object() && data[0].contains("directives");
    if (!is_state) {
        return verdicts_text(data);
    }
    std::string text;
    for (const control_json& vrf : data) {
        text += vrf_directives_text(vrf);
    }
    return text;
}
