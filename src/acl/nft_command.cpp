#include "acl/nft_command.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/shell_command.h"

namespace {

constexpr int first_free_descriptor = 3;

/// Redirects standard error into memory. If that is impossible, it remains unchanged.
class redirected_standard_error {
  public:
    redirected_standard_error() : memory_(memfd_create("nft messages", MFD_CLOEXEC)) {
        if (memory_ >= 0) {
            saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, first_free_descriptor);
        }
        if (saved_ >= 0) {
            dup2(memory_, STDERR_FILENO);
        }
    }
    redirected_standard_error(const redirected_standard_error&) = delete;
    redirected_standard_error& operator=(const redirected_standard_error&) = delete;
    ~redirected_standard_error() {
        if (memory_ >= 0) {
            close(memory_);
        }
    }

    /// Restores standard error and passes on what was written.
    void end(char* message, size_t size) {
        message[0] = '\0';
        if (saved_ < 0) {
            return;
        }
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        const ssize_t count = pread(memory_, message, size - 1, 0);
        if (count > 0) {
            message[count] = '\0';
            [[maybe_unused]] const ssize_t passed_on = write(STDERR_FILENO, message, static_cast<size_t>(count));
        }
    }

  private:
    int memory_;
    int saved_ = -1;
};

}  // namespace

int run_nft_command(const char* command, char* message, size_t size) {
    const int before = errno;
    redirected_standard_error standard_error;
    errno = before;
    const int result = run_shell_command(command, nft_limit);
    const int after = errno;
    standard_error.end(message, size);
    errno = after;
    return result;
}

void shorten_nft_message(char* message) {
    // The second line is the rule, the third marks a position in it.
    char* rule = strchr(message, '\n');
    if (rule == nullptr) {
        return;
    }
    char* text = rule + 1 + strspn(rule + 1, " \t");
    *strchrnul(text, '\n') = '\0';
    if (*text == '\0') {
        *rule = '\0';
        return;
    }
    *rule = ' ';
    memmove(rule + 1, text, strlen(text) + 1);
}
