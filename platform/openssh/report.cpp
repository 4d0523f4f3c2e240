#include "openssh/report.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "openssh/text.h"

namespace openssh {

bool is_journal_stream(int fd, const char* journal_stream) {
    unsigned long long device = 0;
    unsigned long long inode = 0;
    char extra = '\0';
    struct stat status;
    return journal_stream != nullptr && std::sscanf(journal_stream, "%llu:%llu%c", &device, &inode, &extra) == 2 &&
           fstat(fd, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

std::string format_report(const reporter& to, severity level, std::string_view text) {
    const std::string prefix = to.to_journal ? format_text("<%d>", static_cast<int>(level)) : std::string("sshd: ");
    return prefix + shown(to.server_file) + ": " + std::string(text) + "\n";
}

void report(const reporter& to, severity level, std::string_view text) {
    // One call, so that lines of several launchers do not mix. Nobody could be told of a failure.
    const std::string line = format_report(to, level, text);
    [[maybe_unused]] const ssize_t written = write(to.fd, line.data(), line.size());
}

void report_words(const reporter& to, severity level, std::string_view prefix, std::string_view words) {
    for (const std::string_view line : split(words, "\r\n")) {
        report(to, level, std::string(prefix) + shown(line));
    }
}

}  // namespace openssh
