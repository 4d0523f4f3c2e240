#include "linux/host/aaa_users.h"

#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "linux/datastore/served_lists.h"

namespace {

constexpr std::string_view tree = "/cfg/gl/aaa/username/";

/// Shells of accounts that nobody logs in to, by the last component of their paths.
constexpr std::string_view closed_shells[] = {"nologin", "false"};

struct account {
    std::string index;
    std::string name;
};

/// An empty field means the standard shell.
bool can_log_in(const passwd& entry) {
    const std::string_view shell = entry.pw_shell == nullptr ? "" : entry.pw_shell;
    const size_t slash = shell.rfind('/');
    const std::string_view program = slash == std::string_view::npos ? shell : shell.substr(slash + 1);
    return std::find(std::begin(closed_shells), std::end(closed_shells), program) == std::end(closed_shells);
}

/// The number of an account; from the second name of a number on, followed by a suffix.
std::string next_index(std::unordered_map<uid_t, int>& names_of, uid_t number) {
    const int names = ++names_of[number];
    return names == 1 ? std::to_string(number) : std::to_string(number) + '_' + std::to_string(names);
}

platform_status read_accounts(std::vector<account>& accounts) {
    std::unordered_map<uid_t, int> names_of;
    setpwent();
    errno = 0;
    for (const passwd* entry = getpwent(); entry != nullptr; entry = getpwent()) {
        if (can_log_in(*entry)) {
            accounts.push_back({next_index(names_of, entry->pw_uid), entry->pw_name});
        }
        errno = 0;
    }
    const int error = errno;
    endpwent();
    // Name services return ENOENT if they have no entries.
    return error == ENOENT || accounts.size() > 0 ? PLATFORM_OK : static_cast<platform_status>(error);
}

/// The names by index, as of the last listing of the indexes. A search for a name reads one index after the other, and
/// querying the name service anew for each would block the loop.
std::unordered_map<std::string, std::string>& listed_names() {
    static std::unordered_map<std::string, std::string> names;
    return names;
}

platform_status list_indexes(std::vector<datastore_list_entry>& entries) {
    std::vector<account> accounts;
    const platform_status status = read_accounts(accounts);
    if (status != PLATFORM_OK) {
        return status;
    }
    listed_names().clear();
    for (account& one : accounts) {
        entries.push_back({one.index, {}});
        listed_names().emplace(std::move(one.index), std::move(one.name));
    }
    return entries.empty() ? platform_status{DATASTORE_NO_SUCH_LIST} : platform_status{PLATFORM_OK};
}

platform_status list_name(const std::string& index, std::vector<datastore_list_entry>& entries) {
    const auto found = listed_names().find(index);
    if (found == listed_names().end()) {
        return DATASTORE_NO_SUCH_LIST;
    }
    entries.push_back({found->second, {}});
    return PLATFORM_OK;
}

platform_status list_accounts(std::string_view path, std::vector<datastore_list_entry>& entries) {
    if (path.empty()) {
        return list_indexes(entries);
    }
    const std::string index(path.substr(0, path.size() - 1));
    const platform_status status = list_name(index, entries);
    if (status == PLATFORM_OK) {
        return status;
    }
    // The account may have been added since.
    std::vector<datastore_list_entry> indexes;
    const platform_status listed = list_indexes(indexes);
    return listed == PLATFORM_OK ? list_name(index, entries) : listed;
}

}  // namespace

void aaa_users_start() {
    datastore_serve_lists(tree, list_accounts);
}

void aaa_users_stop() {
    datastore_withdraw_lists(tree);
}
