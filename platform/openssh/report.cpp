#include "openssh/report.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>

#include "common/text.h"
#include "openssh/text.h"

namespace openssh {

namespace {

bool is_journal_stream(int fd, const char* journal_stream) {
    unsigned long long device = 0;
    unsigned long long inode = 0;
    char extra = '\0';
    struct stat status;
    return journal_stream != nullptr && std::sscanf(journal_stream, "%llu:%llu%c", &device, &inode, &extra) == 2 &&
           fstat(fd, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

}  // namespace

report_way choose_report_way(int fd, const char* journal_stream, bool has_system_log) {
    if (!is_journal_stream(fd, journal_stream)) {
        return report_way::text;
    }
    return has_system_log ? report_way::system_log : report_way::marked_text;
}

std::string format_report(const reporter& to, severity level, std::string_view text) {
    const std::string prefix =
        to.way == report_way::text ? std::string(to.program) + ": " : text_format("<%d>", static_cast<int>(level));
    return prefix + shown(to.server_file) + ": " + std::string(text) + "\n";
}

void report(const reporter& to, severity level, std::string_view text) {
    if (to.way == report_way::system_log) {
        syslog(static_cast<int>(level), "%s: %.*s", shown(to.server_file).c_str(), static_cast<int>(text.size()),
               text.data());
        return;
    }
    // One call, so that lines of several launchers do not mix. If it fails, nobody could be informed.
    const std::string line = format_report(to, level, text);
    [[maybe_unused]] const ssize_t written = write(to.fd, line.data(), line.size());
}

void report_words(const reporter& to, severity level, std::string_view prefix, std::string_view words) {
    for (const std::string_view line : split(words, "\r\n")) {
        report(to, level, std::string(prefix) + shown(line));
    }
}

}  // namespace openssh
