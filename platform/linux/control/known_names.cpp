#include "linux/control/known_names.h"

#include <set>
#include <string_view>

#include "linux/datastore/datastore_internal.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

namespace {

constexpr size_t names_max = 1000;
constexpr char user_list[] = "/cfg/gl/aaa/username/";

/// Returns the names of the machine's users. The list of users contains numbers, and the entry below each number is the
/// user's name.
std::vector<std::string> known_users() {
    std::vector<std::string> numbers;
    std::vector<std::string> users;
    datastore_list_children(user_list, numbers);
    for (const std::string& number : numbers) {
        std::vector<std::string> names;
        datastore_list_children(user_list + number, names);
        users.insert(users.end(), names.begin(), names.end());
    }
    return users;
}

struct name_source_row {
    std::string_view folder;
    std::vector<std::string> (*names)();
};

constexpr name_source_row name_sources[] = {
    {"/cfg/gl/crypto/ssh/server/cmn/username/", known_users},
    {"/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/", control_known_vrfs},
    {"/cfg/gl/crypto/ssh/server/sshd/vrf/", control_known_vrfs},
};

}  // namespace

std::vector<std::string> control_known_vrfs() {
    std::vector<std::string> names;
    for (const std::string& name : namespace_list()) {
        names.push_back(name.substr(std::string_view(namespace_name_prefix).size()));
    }
    return names;
}

std::vector<std::string> control_known_names(const std::string& folder) {
    std::vector<std::string> configured;
    datastore_list_children(folder, configured);
    std::set<std::string> names(configured.begin(), configured.end());
    for (const name_source_row& row : name_sources) {
        if (row.folder == folder) {
            const std::vector<std::string> known = row.names();
            names.insert(known.begin(), known.end());
        }
    }
    std::vector<std::string> valid;
    for (const std::string& name : names) {
        if (valid.size() < names_max && schema_find(folder + name, nullptr) != nullptr) {
            valid.push_back(name);
        }
    }
    return valid;
}
