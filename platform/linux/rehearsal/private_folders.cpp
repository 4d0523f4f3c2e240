#include "linux/rehearsal/private_folders.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>
#include <system_error>

#include "common/files.h"
#include "common/text.h"
#include "linux/rehearsal/isolated_process.h"
#include "user_keys/key_file.h"

namespace {

/// A rule file of 10,000 entries takes a tenth of this.
constexpr size_t file_max = size_t{16} * 1024 * 1024;

/// Where the agent writes a server file before it is renamed. It may be left behind.
constexpr std::string_view temporary_file = "temp_sshd_config";

/// Where the machine's own folders remain to be seen, for the links.
constexpr char machine_folders[] = "/tmp/machine";

/// Without the sockets in /run/systemd and /run/dbus nothing is logged and the service manager cannot be reached.
constexpr private_folder_row rows[] = {
    {"/tmp", {}, {}},
    {"/tmp/norvo-ssh/access-list", {}, {}, false, true},
    {"/etc", {"motd"}, {""}, true, true},
    {"/etc/pam.d", {"norvosshd"}, {""}, true, true},
    {"/etc/systemd/system", {"sshd_service_", "sshd_conf_"}, {""}, true, true},
    {"/run", {"norvossh_restart_record"}, {""}},
    {"/run/systemd", {}, {}},
    {"/run/dbus", {}, {}},
    {"/run/sshd", {}, {}},
    {"/run/ssh_cfg_agent", {}, {}},
    {"/run/ssh_cfg_agent/openssh", {"~algorithms"}, {}},
    {"/var/opt/norvo/norvossh", {""}, {}, true, true},
    {key_file_directory, {""}, {}, true, true},
};

std::string failure_of(const char* step, const std::string& path) {
    return std::string(step) + ' ' + path + ": " + strerror(errno);
}

[[noreturn]] void throw_failure(const std::string& path, int error) {
    throw std::system_error(error, std::generic_category(), "cannot read " + path);
}

bool begins_with_one_of(std::string_view name, const std::array<const char*, 2>& prefixes) {
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [name](const char* prefix) { return prefix != nullptr && name.starts_with(prefix); });
}

/// The names in a folder; none if there is no such folder.
std::vector<std::string> names_in(int folder) {
    std::vector<std::string> names;
    const int readable = folder < 0 ? -1 : openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* opened = readable < 0 ? nullptr : fdopendir(readable);
    if (opened == nullptr) {
        if (readable >= 0) {
            close(readable);
        }
        return names;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opened, closedir);
    while (const dirent* entry = readdir(directory.get())) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
    }
    return names;
}

bool is_regular(int folder, const std::string& name) {
    struct stat status = {};
    return fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode);
}

/// The names of the folder's files that are copied.
std::vector<std::string> copied_names(int folder, const private_folder_row& row) {
    std::vector<std::string> names = names_in(folder);
    std::erase_if(names, [&](const std::string& name) {
        return !begins_with_one_of(name, row.copied) || !is_regular(folder, name);
    });
    return names;
}

/// Nothing if there is no such file.
std::optional<std::string> content_of(int folder, const std::string& name) {
    const file_descriptor file(openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0 && errno == ENOENT) {
        return std::nullopt;
    }
    std::string content;
    const platform_status status =
        file.get() < 0 ? static_cast<platform_status>(errno) : file_read_regular(file.get(), file_max, content);
    if (status != PLATFORM_OK) {
        throw_failure(name, static_cast<int>(status));
    }
    return content;
}

std::string copy_file(int from, const std::string& to, const std::string& name) {
    struct stat status = {};
    const std::optional<std::string> content = content_of(from, name);
    if (!content || fstatat(from, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return {};
    }
    const std::string path = to + '/' + name;
    const platform_status written = file_write_new(path, *content, {.mode = status.st_mode & 07777});
    return written == PLATFORM_OK ? std::string()
                                  : text_format("cannot copy %s: %s", path.c_str(), platform_status_text(written));
}

bool is_private(std::string_view path) {
    return std::any_of(std::begin(rows), std::end(rows), [path](const auto& row) { return path == row.path; });
}

/// A link with the same target as the machine's, or one to the machine's entry. A private folder, which will cover it, is
/// made a folder.
std::string link_entry(int from, const std::string& machine_path, const std::string& to, const std::string& name) {
    char target[PATH_MAX];
    const ssize_t length = readlinkat(from, name.c_str(), target, sizeof target - 1);
    const std::string wanted =
        length < 0 ? machine_path + '/' + name : std::string(target, static_cast<size_t>(length));
    const std::string path = to + '/' + name;
    if (is_private(path)) {
        return mkdir(path.c_str(), 0755) == 0 ? std::string() : failure_of("cannot create", path);
    }
    return symlink(wanted.c_str(), path.c_str()) == 0 ? std::string() : failure_of("cannot link", path);
}

/// Makes a descriptor's folder also accessible at `path`.
std::string show_machine_folder(int folder, const std::string& path) {
    if (mkdir(path.c_str(), 0700) != 0) {
        return failure_of("cannot create", path);
    }
    const std::string source = "/proc/self/fd/" + std::to_string(folder);
    return mount(source.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0
               ? std::string()
               : failure_of("cannot show the machine's folder at", path);
}

std::string cover(const char* path, mode_t mode) {
    // Exists unless it is in a folder that is covered itself.
    if (mkdir(path, mode) != 0 && errno != EEXIST && errno != EROFS) {
        return failure_of("cannot create", path);
    }
    const std::string options = text_format("mode=%04o,size=256m", static_cast<unsigned>(mode));
    return mount("rehearsal", path, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, options.c_str()) == 0
               ? std::string()
               : failure_of("cannot cover", path);
}

rehearsed_change change_of(const private_change& change) {
    return !change.before  ? rehearsed_change::created
           : !change.after ? rehearsed_change::deleted
                           : rehearsed_change::changed;
}

}  // namespace

std::span<const private_folder_row> private_folder_rows() {
    return rows;
}

private_folders::private_folders(std::span<const private_folder_row> rows) {
    for (const private_folder_row& row : rows) {
        folders_.emplace_back(row, open(row.path, O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
}

std::string private_folders::mount_one(const folder& one, size_t number) const {
    struct stat status = {};
    if (!one.row->is_mounted || one.machine.get() < 0 || fstat(one.machine.get(), &status) != 0) {
        return {};
    }
    // The copy of the mount would have a cover as well.
    const std::string machine_path = std::string(machine_folders) + '/' + std::to_string(number);
    std::string problem;
    if (one.row->linked.front() != nullptr) {
        problem = show_machine_folder(one.machine.get(), machine_path);
    }
    if (problem.empty()) {
        problem = cover(one.row->path, status.st_mode & 0755);
    }
    for (const std::string& name : names_in(one.machine.get())) {
        if (!problem.empty()) {
            return problem;
        }
        if (begins_with_one_of(name, one.row->copied) && is_regular(one.machine.get(), name)) {
            problem = copy_file(one.machine.get(), one.row->path, name);
        } else if (begins_with_one_of(name, one.row->linked)) {
            problem = link_entry(one.machine.get(), machine_path, one.row->path, name);
        }
    }
    return problem;
}

std::string private_folders::mount() try {
    std::string problem = make_machine_read_only();
    for (size_t i = 0; i < folders_.size() && problem.empty(); ++i) {
        problem = mount_one(folders_[i], i);
        if (i == 0 && problem.empty() && mkdir(machine_folders, 0700) != 0) {
            problem = failure_of("cannot create", machine_folders);
        }
    }
    return problem;
} catch (const std::system_error& failure) {
    return failure.what();
}

void private_folders::add_changes(const folder& one, std::map<std::string, private_change>& changes) const {
    const file_descriptor present(open(one.row->path, O_PATH | O_DIRECTORY | O_CLOEXEC));
    const auto add = [&](const std::string& name) {
        const std::string path = std::string(one.row->path) + '/' + name;
        private_change change = {{path, rehearsed_change::changed},
                                 one.machine.get() < 0 ? std::nullopt : content_of(one.machine.get(), name),
                                 present.get() < 0 ? std::nullopt : content_of(present.get(), name)};
        if (change.before != change.after) {
            change.file.change = change_of(change);
            changes.insert_or_assign(path, std::move(change));
        }
    };
    for (const std::string& name : names_in(present.get())) {
        if (name != temporary_file && is_regular(present.get(), name)) {
            add(name);
        }
    }
    for (const std::string& name : copied_names(one.machine.get(), *one.row)) {
        if (name != temporary_file) {
            add(name);
        }
    }
}

std::vector<private_change> private_folders::changes() const {
    std::map<std::string, private_change> sorted;
    for (const folder& one : folders_) {
        if (one.row->is_told) {
            add_changes(one, sorted);
        }
    }
    std::vector<private_change> changes;
    changes.reserve(sorted.size());
    for (auto& [path, change] : sorted) {
        changes.push_back(std::move(change));
    }
    return changes;
}

std::optional<std::string> private_folders::machine_content(const std::string& path) const {
    const std::string parent = file_folder(path);
    for (const folder& one : folders_) {
        if (parent == one.row->path && one.machine.get() >= 0) {
            return content_of(one.machine.get(), path.substr(parent.size() + 1));
        }
    }
    return std::nullopt;
}
