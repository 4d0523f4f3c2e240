/// authorized_keys USER: prints a user's key from the key store as an authorized_keys line, for sshd's
/// AuthorizedKeysCommand. Printing nothing for a user without a key is not a failure.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "user_keys/key_file.h"
#include "user_keys/key_record.h"

namespace {

int complain(const char* what, const char* why) {
    fprintf(stderr, "authorized_keys: %s: %s\n", what, why);
    return 1;
}

int print_key(const char* user) {
    std::string line;
    if (const platform_status status = key_file_read(user, line); status != PLATFORM_OK) {
        return complain((std::string(key_file_directory) + '/' + user).c_str(), platform_status_text(status));
    }
    if (fwrite(line.data(), 1, line.size(), stdout) != line.size() || fflush(stdout) != 0) {
        return complain("standard output", strerror(errno));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fputs("usage: authorized_keys USER\n", stderr);
        return 1;
    }
    // No key can exist for such a user, and the name is not safe to print in a message.
    if (!key_user_is_valid(argv[1])) {
        return complain("invalid user name",
                        "expected 1 to 64 letters, digits, '_', '-' or '.', not beginning with '-' or '.'");
    }
    try {
        return print_key(argv[1]);
    } catch (const std::exception& exception) {
        return complain("failed", exception.what());
    }
}
