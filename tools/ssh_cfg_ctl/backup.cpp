#include "ssh_cfg_ctl/backup.h"

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
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
constexpr int backup_version = 2;
/// Backups of this version have access lists and imported keys as members of their own.
constexpr int separate_lists_version = 1;
constexpr size_t kept_file_max = size_t{64} * 1024;
constexpr std::string_view user_items = "/cfg/gl/crypto/ssh/server/cmn/username/";
constexpr std::string_view list_tree = "/access-lists/";
constexpr std::string_view key_tree = "/keys/";

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

constexpr std::string_view local_folder = "/etc/ssh_cfg_agent/sshd.d/";
constexpr std::string_view local_suffix = ".conf";
constexpr kept_file any_local_file = {local_folder, 0644};

/// Whether a path is that of a file with local directives, and leads nowhere else.
bool is_local_file(std::string_view path) {
    const std::string_view name = path.substr(std::min(path.size(), local_folder.size()));
    return path.starts_with(local_folder) && name.size() > local_suffix.size() && name.ends_with(local_suffix) &&
           name[0] != '.' && name[0] != '-' &&
           name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.") ==
               std::string_view::npos;
}

/// The files with local directives that exist.
std::vector<std::string> local_files() {
    std::vector<std::string> paths;
    std::error_code no_folder;
    for (const auto& entry : std::filesystem::directory_iterator(local_folder, no_folder)) {
        if (is_local_file(entry.path().string())) {
            paths.push_back(entry.path().string());
        }
    }
    return paths;
}

const kept_file* find_kept_file(std::string_view path) {
    if (is_local_file(path)) {
        return &any_local_file;
    }
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

/// A file that does not exist is not part of the backup.
control_json read_kept_files(std::string& problems) {
    control_json files = control_json::object();
    std::vector<std::string> paths = local_files();
    for (const kept_file& file : kept_files) {
        paths.emplace_back(file.path);
    }
    for (const std::string& path : paths) {
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
    backup["files"] = read_kept_files(problems);
    return problem.is_null() && !problems.empty() ? control_answer(control_result::failed, problems) : problem;
}

/// What is wrong with the form of a backup; empty if nothing is.
std::string wrong_form(const control_json& backup) {
    if (!backup.is_object() || backup.value("format", control_json()) != backup_format) {
        return "not a backup";
    }
    const bool has_separate_lists = backup.value("version", control_json()) == separate_lists_version;
    if (!has_separate_lists && backup.value("version", control_json()) != backup_version) {
        return "a backup of another version";
    }
    const struct {
        const char* name;
        bool is_object;
        bool is_expected;
    } members[] = {{"configuration", true, true},
                   {"access_lists", false, has_separate_lists},
                   {"keys", false, has_separate_lists},
                   {"files", true, true}};
    for (const auto& member : members) {
        const auto found = backup.find(member.name);
        if (member.is_expected &&
            (found == backup.end() || !(member.is_object ? found->is_object() : found->is_array()))) {
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

/// Returns the user that an item or an imported key belongs to, or an empty string if it belongs to none.
std::string user_of_item(std::string_view path) {
    for (const std::string_view tree : {user_items, key_tree}) {
        if (path.starts_with(tree)) {
            path.remove_prefix(tree.size());
            return std::string(path.substr(0, path.find('/')));
        }
    }
    return {};
}

std::string text_member(const control_json& object, const char* name) {
    return object.is_object() && object.value(name, control_json()).is_string() ? object[name].get<std::string>() : "";
}

/// Makes access lists and imported keys part of the configuration, as they are in a backup of the present version. What a
/// list or key lacks is refused when the configuration is checked.
void include_separate_lists(control_json& backup) {
    for (const control_json& list : backup.value("access_lists", control_json::array())) {
        const std::string path = std::string(list_tree) + text_member(list, "family") + '/' + text_member(list, "name");
        backup["configuration"][path] = list.is_object() ? list.value("entries", control_json()) : control_json();
    }
    for (const control_json& key : backup.value("keys", control_json::array())) {
        backup["configuration"][std::string(key_tree) + text_member(key, "user")] = text_member(key, "key");
    }
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
    backup["configuration"] = std::move(items);
    return missing;
}

/// Returns the request for the commit that restores items, access lists and imported keys. It deletes all those that the
/// backup does not contain, also if the backup contains no list or no key.
control_json load_request(const control_json& backup) {
    control_json items = backup["configuration"];
    items[std::string(list_tree)] = nullptr;
    items[std::string(key_tree)] = nullptr;
    return {{"call", "load"}, {"replace", true}, {"note", "restored from a backup"}, {"items", std::move(items)}};
}

/// One restoration, which goes on when a part of it fails.
class restoration {
  public:
    restoration(const ctl_connection_settings& settings, const control_json& backup)
        : settings_(settings), backup_(backup) {}

    control_json run() {
        restore_files();
        settle("configuration", ctl_ask_with_consent(settings_, load_request(backup_)));
        apply_local_directives();
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
            if (file == &any_local_file) {
                mkdir(std::string(local_folder).c_str(), 0755);
            }
            const platform_status status =
                file_replace(path, content.get_ref<const std::string&>(), {.mode = file->mode, .durable = true});
            settle(path, status == PLATFORM_OK
                             ? control_answer(control_result::done)
                             : control_answer(control_result::failed, strerror(static_cast<int>(status))));
        }
    }

    /// A server whose configuration is the same has not been restarted for the commit.
    void apply_local_directives() {
        const auto has_some = [this] {
            for (const auto& [path, content] : backup_["files"].items()) {
                if (is_local_file(path)) {
                    return true;
                }
            }
            return false;
        };
        if (has_some()) {
            const control_json answer = ctl_ask_to_the_end(settings_, {{"call", "local_apply"}});
            if (!is_done(answer) || answer.contains("message")) {
                add_line(lost_, "local directives: " + answer.value("message", ""));
            }
        }
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
    control_json request = load_request(backup);
    request["check"] = true;
    const control_json checked = ctl_ask_to_the_end(settings, request);
    if (is_done(checked) && checked.contains("confirmation_awaited")) {
        std::string reasons;
        for (const control_json& warning : checked.value("warnings", control_json::array())) {
            add_line(reasons, warning.is_string() ? warning.get<std::string>() : std::string());
        }
        return refused(reasons);
    }
    return is_done(checked) ? control_json() : checked;
}

size_t count_below(const control_json& items, std::string_view tree) {
    size_t count = 0;
    for (const auto& [path, value] : items.items()) {
        count += path.starts_with(tree) ? 1 : 0;
    }
    return count;
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
    const size_t lists = count_below(backup["configuration"], list_tree);
    const size_t keys = count_below(backup["configuration"], key_tree);
    answer["data"] = {{"items", backup["configuration"].size() - lists - keys},
                      {"access_lists", lists},
                      {"keys", keys},
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
    include_separate_lists(*backup);
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
