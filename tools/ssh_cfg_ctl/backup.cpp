#include "ssh_cfg_ctl/backup.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>

#include "common/files.h"
#include "common/machine_user.h"
#include "common/text.h"
#include "control_protocol/answer.h"
#include "ssh_cfg_ctl/consent.h"
#include "ssh_cfg_ctl/file.h"
#include "ssh_cfg_ctl/options.h"
#include "ssh_cfg_ctl/print.h"

namespace {

constexpr char backup_format[] = "ssh_cfg_ctl backup";
constexpr int backup_version = 1;
constexpr size_t kept_file_max = size_t{64} * 1024;
constexpr std::string_view user_items = "/cfg/gl/crypto/ssh/server/cmn/username/";

struct kept_file {
    std::string_view path;
    mode_t mode;
};

/// The only files that a backup contains, and that restoring one writes to.
constexpr kept_file kept_files[] = {
    {"/pkg/rsa", 0600},
    {"/pkg/rsa.pub", 0644},
    {"/pkg/ed25519", 0600},
    {"/pkg/ed25519.pub", 0644},
    {"/pkg/ecdsa-sha2-nistp256", 0600},
    {"/pkg/ecdsa-sha2-nistp256.pub", 0644},
    {"/pkg/ecdsa-sha2-nistp384", 0600},
    {"/pkg/ecdsa-sha2-nistp384.pub", 0644},
    {"/pkg/ecdsa-sha2-nistp521", 0600},
    {"/pkg/ecdsa-sha2-nistp521.pub", 0644},
    {"/etc/ssh_cfg_agent/platform.conf", 0644},
    {"/etc/ssh_cfg_agent/platform_banner.login", 0644},
    {"/etc/ssh_cfg_agent/platform_banner.motd", 0644},
    {"/etc/pam.d/ssh_cfg_aaa", 0644},
};

const kept_file* find_kept_file(std::string_view path) {
    for (const kept_file& file : kept_files) {
        if (file.path == path) {
            return &file;
        }
    }
    return nullptr;
}

control_json refused(const std::string& message) {
    return control_answer(control_result::refused, message);
}

bool is_done(const control_json& answer) {
    const control_result result = control_result_of_name(answer.value("result", ""));
    return result == control_result::done || result == control_result::not_in_force;
}

std::string shown(const std::string& text) {
    return text_escape(text, ctl_shown_max);
}

/// Adds a line to an answer's message.
void add_line(std::string& lines, const std::string& line) {
    lines += (lines.empty() ? "" : "\n") + line;
}

/// Asks for data. Returns null, or the answer without data.
control_json read_data(const ctl_connection_settings& settings, const control_json& request, control_json& data) {
    control_json answer = ctl_ask_to_the_end(settings, request);
    if (!is_done(answer)) {
        return answer;
    }
    data = answer.value("data", control_json());
    return {};
}

/// Adds the entries to each list. Returns null or the answer that failed.
control_json read_lists(const ctl_connection_settings& settings, control_json& lists) {
    control_json problem = read_data(settings, {{"call", "acl_list"}}, lists);
    for (control_json& list : lists) {
        if (problem.is_null()) {
            problem = read_data(settings, {{"call", "acl_show"}, {"family", list["family"]}, {"name", list["name"]}},
                                list["entries"]);
        }
    }
    return problem;
}

/// Only the imported keys: the others are part of the configuration.
control_json read_keys(const ctl_connection_settings& settings, control_json& keys) {
    control_json all;
    control_json problem = read_data(settings, {{"call", "key_list"}}, all);
    keys = control_json::array();
    for (const control_json& key : all) {
        if (key.value("origin", "") == "exec") {
            keys.push_back({{"user", key.value("user", "")}, {"key", key.value("key", "")}});
        }
    }
    return problem;
}

/// A file that does not exist is not part of the backup.
control_json read_kept_files(std::string& problems) {
    control_json files = control_json::object();
    for (const kept_file& file : kept_files) {
        const std::string path(file.path);
        std::string content;
        const platform_status status = file_read(path, kept_file_max, content);
        if (status == PLATFORM_OK && text_is_utf8(content)) {
            files[path] = content;
        } else if (status != ENOENT) {
            add_line(problems,
                     path + ": " + (status == PLATFORM_OK ? "not valid UTF-8" : strerror(static_cast<int>(status))));
        }
    }
    return files;
}

control_json whole_backup(const ctl_connection_settings& settings, control_json& backup) {
    std::string problems;
    backup = {{"format", backup_format}, {"version", backup_version}, {"time", text_utc_time(time(nullptr))}};
    control_json problem = read_data(settings, {{"call", "dump"}}, backup["configuration"]);
    if (problem.is_null()) {
        problem = read_lists(settings, backup["access_lists"]);
    }
    if (problem.is_null()) {
        problem = read_keys(settings, backup["keys"]);
    }
    backup["files"] = read_kept_files(problems);
    return problem.is_null() && !problems.empty() ? control_answer(control_result::failed, problems) : problem;
}

/// What is wrong with the form of a backup; empty if nothing is.
std::string wrong_form(const control_json& backup) {
    if (!backup.is_object() || backup.value("format", control_json()) != backup_format) {
        return "not a backup";
    }
    if (backup.value("version", control_json()) != backup_version) {
        return "a backup of another version";
    }
    const struct {
        const char* name;
        bool is_object;
    } members[] = {{"configuration", true}, {"access_lists", false}, {"keys", false}, {"files", true}};
    for (const auto& member : members) {
        const auto found = backup.find(member.name);
        if (found == backup.end() || !(member.is_object ? found->is_object() : found->is_array())) {
            return std::string("member \"") + member.name + "\" is missing or of the wrong kind";
        }
    }
    std::string wrong;
    for (const auto& [path, content] : backup["files"].items()) {
        if (find_kept_file(path) == nullptr || !content.is_string()) {
            add_line(wrong, shown(path) + " is not a file that a backup contains");
        }
    }
    return wrong;
}

std::string user_of_item(std::string_view path) {
    if (!path.starts_with(user_items)) {
        return {};
    }
    path.remove_prefix(user_items.size());
    return std::string(path.substr(0, path.find('/')));
}

std::string user_of_key(const control_json& key) {
    return key.is_object() && key.value("user", control_json()).is_string() ? key["user"].get<std::string>() : "";
}

bool is_missing(const std::string& user) {
    return !user.empty() && machine_user_find(user) == machine_user::unknown;
}

/// Removes what belongs to users who do not exist on this machine. Returns their names.
std::set<std::string> remove_missing_users(control_json& backup) {
    std::set<std::string> missing;
    control_json items = control_json::object();
    for (const auto& [path, value] : backup["configuration"].items()) {
        const std::string user = user_of_item(path);
        if (is_missing(user)) {
            missing.insert(user);
        } else {
            items[path] = value;
        }
    }
    control_json keys = control_json::array();
    for (const control_json& key : backup["keys"]) {
        if (is_missing(user_of_key(key))) {
            missing.insert(user_of_key(key));
        } else {
            keys.push_back(key);
        }
    }
    backup["configuration"] = std::move(items);
    backup["keys"] = std::move(keys);
    return missing;
}

/// One restoration, which goes on when a part of it fails.
class restoration {
  public:
    restoration(const ctl_connection_settings& settings, const control_json& backup)
        : settings_(settings), backup_(backup) {}

    control_json run() {
        restore_files();
        restore_lists();
        restore_keys();
        restore_configuration();
        control_json answer = control_answer(lost_.empty() ? control_result::done : control_result::failed, lost_);
        answer["data"] = {{"restored", restored_}};
        return answer;
    }

  private:
    void settle(const std::string& what, const control_json& answer) {
        if (is_done(answer)) {
            restored_.push_back(what);
        }
        // A change that was stored but is not completely in force is answered with a message, too.
        const std::string message = answer.value("message", "");
        if (!is_done(answer) || !message.empty()) {
            add_line(lost_, what + ": " + message);
        }
    }

    void restore_files() {
        for (const auto& [path, content] : backup_["files"].items()) {
            const kept_file* file = find_kept_file(path);
            const platform_status status =
                file_replace(path, content.get_ref<const std::string&>(), {.mode = file->mode, .durable = true});
            settle(path, status == PLATFORM_OK
                             ? control_answer(control_result::done)
                             : control_answer(control_result::failed, strerror(static_cast<int>(status))));
        }
    }

    void restore_lists() {
        for (const control_json& list : backup_["access_lists"]) {
            control_json request = list.is_object() ? list : control_json::object();
            request["call"] = "acl_set";
            request["empty"] = true;
            const std::string name = control_json_text(request.value("name", control_json()));
            settle("access list " + shown(name), ctl_ask_with_consent(settings_, std::move(request)));
        }
    }

    void restore_keys() {
        for (const control_json& key : backup_["keys"]) {
            const control_json text = key.is_object() ? key.value("key", control_json()) : control_json();
            settle("key " + shown(user_of_key(key)),
                   ctl_ask_to_the_end(settings_, {{"call", "key_import"}, {"user", user_of_key(key)}, {"text", text}}));
        }
    }

    void restore_configuration() {
        settle("configuration", ctl_ask_with_consent(settings_, {{"call", "load"},
                                                                 {"replace", true},
                                                                 {"note", "restored from a backup"},
                                                                 {"items", backup_["configuration"]}}));
    }

    const ctl_connection_settings& settings_;
    const control_json& backup_;
    control_json restored_ = control_json::array();
    std::string lost_;
};

std::string joined_names(const std::set<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + shown(name);
    }
    return text;
}

/// Refuses a backup that could not be restored, before anything is changed. Returns null if it can be.
control_json check_backup(const ctl_connection_settings& settings, const control_json& backup) {
    const control_json checked = ctl_ask_to_the_end(
        settings, {{"call", "load"}, {"check", true}, {"replace", true}, {"items", backup["configuration"]}});
    if (is_done(checked) && checked.contains("confirmation_awaited")) {
        std::string reasons;
        for (const control_json& warning : checked.value("warnings", control_json::array())) {
            add_line(reasons, warning.is_string() ? warning.get<std::string>() : std::string());
        }
        return refused(reasons);
    }
    return is_done(checked) ? control_json() : checked;
}

}  // namespace

control_json ctl_backup(const ctl_connection_settings& settings, const std::vector<std::string>& arguments) {
    if (arguments.size() != 1 || arguments[0].starts_with('-')) {
        return {};
    }
    if (geteuid() != 0) {
        return refused("permission denied: a backup contains the private host keys, so only root may make one");
    }
    control_json backup;
    control_json problem = whole_backup(settings, backup);
    if (!problem.is_null()) {
        return problem;
    }
    const platform_status status = file_replace(arguments[0], backup.dump(2) + '\n', {.mode = 0600, .durable = true});
    if (status != PLATFORM_OK) {
        return control_answer(control_result::failed, shown(arguments[0]) + ": " + strerror(static_cast<int>(status)));
    }
    control_json answer = control_answer(control_result::done);
    answer["data"] = {{"items", backup["configuration"].size()},
                      {"access_lists", backup["access_lists"].size()},
                      {"keys", backup["keys"].size()},
                      {"files", backup["files"].size()}};
    return answer;
}

control_json ctl_restore(const ctl_connection_settings& settings, const std::vector<std::string>& given) {
    std::vector<std::string> arguments = given;
    const bool skip = ctl_take_flag(arguments, "--skip-missing-users");
    if (arguments.size() != 1 || (arguments[0] != "-" && arguments[0].starts_with('-'))) {
        return {};
    }
    if (geteuid() != 0) {
        return refused("permission denied: a backup contains the private host keys, so only root may restore one");
    }
    control_json problem;
    std::optional<control_json> backup = ctl_read_json_file(arguments[0], problem);
    if (!backup.has_value()) {
        return problem;
    }
    if (const std::string wrong = wrong_form(*backup); !wrong.empty()) {
        return refused(shown(arguments[0]) + ": " + wrong);
    }
    const std::set<std::string> missing = remove_missing_users(*backup);
    if (!missing.empty() && !skip) {
        return refused("nothing has been restored, because these users do not exist on this machine: " +
                       joined_names(missing) + "; create them, or use --skip-missing-users");
    }
    problem = check_backup(settings, *backup);
    if (!problem.is_null()) {
        return problem;
    }
    control_json answer = restoration(settings, *backup).run();
    if (!missing.empty()) {
        answer["warnings"] = {"not restored, because the users do not exist on this machine: " + joined_names(missing)};
    }
    return answer;
}

std::string ctl_backup_text(const control_json& answer) {
    const control_json data = answer.value("data", control_json::object());
    if (!data.contains("restored")) {
        return ctl_record_text(data);
    }
    std::string text;
    for (const control_json& what : data["restored"]) {
        text += "restored: " + what.get<std::string>() + '\n';
    }
    return text;
}
