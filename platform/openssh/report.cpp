#include "openssh/report.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>

#include "common/journal_entry.h"
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

/// Sends a line to the journal and names the service in the entry, because a launcher that gives up has often ended before
/// the journal looks up its process. Returns whether the entry was sent.
bool send_to_journal(const reporter& to, severity level, const std::string& line) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    std::string entry;
    append_journal_field(entry, "MESSAGE=", line);
    append_journal_field(entry, "PRIORITY=", std::to_string(static_cast<int>(level)));
    append_journal_field(entry, "SYSLOG_FACILITY=", std::to_string(LOG_FAC(LOG_AUTH)));
    append_journal_field(entry, "SYSLOG_IDENTIFIER=", to.log_name);
    append_journal_field(entry, "SYSLOG_PID=", std::to_string(getpid()));
    append_journal_field(entry, "OBJECT_SYSTEMD_UNIT=", to.service);
    const int error = send_datagram(fd, journal_socket, entry);
    close(fd);
    return error == 0;
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
        const std::string line = shown(to.server_file) + ": " + std::string(text);
        if (to.service.empty() || !send_to_journal(to, level, line)) {
            syslog(static_cast<int>(level), "%s", line.c_str());
        }
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
