#include "common/machine_user.h"

#include <pwd.h>

#include <cerrno>
#include <vector>

machine_user machine_user_find(const std::string& name) {
    constexpr size_t largest_entry = size_t{1024} * 1024;
    std::vector<char> buffer(4096);
    passwd entry = {};
    passwd* found = nullptr;
    int error = 0;
    while ((error = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < largest_entry) {
        buffer.resize(buffer.size() * 2);
    }
    if (found != nullptr) {
        return entry.pw_uid == 0 ? machine_user::superuser : machine_user::ordinary;
    }
    return error == 0 || error == ENOENT || error == ESRCH ? machine_user::unknown : machine_user::undetermined;
}

std::string machine_user_name(uint32_t user_id) {
    constexpr size_t largest_entry = size_t{1024} * 1024;
    std::vector<char> buffer(4096);
    passwd entry = {};
    passwd* found = nullptr;
    while (getpwuid_r(user_id, &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
           buffer.size() < largest_entry) {
        buffer.resize(buffer.size() * 2);
    }
    return found == nullptr ? std::string() : std::string(entry.pw_name);
}
