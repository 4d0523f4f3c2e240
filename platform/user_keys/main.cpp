/// authorized_keys [--fips] USER: prints a user's keys from the key store as authorized_keys lines, for sshd's
/// AuthorizedKeysCommand; with --fips, only those that are accepted in FIPS mode. Printing nothing for a user without a key is
/// not a failure.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "user_keys/authorized_key.h"
#include "user_keys/key_file.h"
#include "user_keys/key_record.h"

namespace {

int complain(const char* what, const char* why) {
    fprintf(stderr, "authorized_keys: %s: %s\n", what, why);
    return 1;
}

/// Returns the lines whose keys are accepted in FIPS mode.
std::string approved_lines(std::string_view lines) {
    std::string approved;
    while (!lines.empty()) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        authorized_key key;
        std::string refusal;
        if (authorized_key_read(line, key, refusal) && public_key_is_approved_for_fips(key.key.type)) {
            approved.append(line) += '\n';
        }
        lines.remove_prefix(std::min(lines.size(), line.size() + 1));
    }
    return approved;
}

int print_keys(const char* user, bool only_approved) {
    std::string lines;
    if (const platform_status status = key_file_read(user, lines); status != PLATFORM_OK) {
        return complain((std::string(key_file_directory) + '/' + user).c_str(), platform_status_text(status));
    }
    if (only_approved) {
        lines = approved_lines(lines);
    }
    if (fwrite(lines.data(), 1, lines.size(), stdout) != lines.size() || fflush(stdout) != 0) {
        return complain("standard output", strerror(errno));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const bool only_approved = argc > 1 && strcmp(argv[1], "--fips") == 0;
    const int user_argument = only_approved ? 2 : 1;
    if (argc != user_argument + 1) {
        fputs("usage: authorized_keys [--fips] USER\n", stderr);
        return 1;
    }
    const char* user = argv[user_argument];
    // No key can exist for such a user, and the name is not safe to print in a message.
    if (!key_user_is_valid(user)) {
        return complain("invalid user name",
                        "expected 1 to 64 letters, digits, '_', '-' or '.', not beginning with '-' or '.'");
    }
    try {
        return print_keys(user, only_approved);
    } catch (const std::exception& exception) {
        return complain("failed", exception.what());
    }
}
