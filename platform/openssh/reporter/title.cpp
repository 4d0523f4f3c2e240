#include "openssh/reporter/title.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

// Prefix of sshd's process titles.
extern "C" char* __progname;

namespace openssh {

namespace {

constexpr std::string_view before_user = "user ";
constexpr std::string_view behind_user = " authenticated by privileged process";
constexpr size_t longest_user = 64;

/// Whether the name is one of uid 0; sshd itself looks the user up in this way at this point.
bool is_root(const char* user) {
    char buffer[4096];
    passwd entry = {};
    passwd* found = nullptr;
    return getpwnam_r(user, &entry, buffer, sizeof(buffer), &found) == 0 && found != nullptr && found->pw_uid == 0;
}

}  // namespace

void follow_login(const log_line& line) noexcept {
    static char title[longest_user + 64];
    if (line.function != "monitor_child_preauth" || line.before_authentication || geteuid() != 0 ||
        !line.text.starts_with(before_user) || !line.text.ends_with(behind_user)) {
        return;
    }
    std::string_view user = line.text;
    user.remove_prefix(before_user.size());
    user.remove_suffix(behind_user.size());
    if (user.size() >= longest_user || title[0] != '\0') {
        return;
    }
    const int error = errno;
    char name[longest_user];
    std::memcpy(name, user.data(), user.size());
    name[user.size()] = '\0';
    if (is_root(name)) {
        snprintf(title, sizeof(title), "%s: %s [priv]", __progname, name);
        __progname = title;
    }
    errno = error;
}

void keep_client_name() noexcept {
    // The client is searched for by its name and a space.
    static char name[] = "/pkg/bin/ssh_csm ";
    __progname = name;
}

}  // namespace openssh
