#include "platform/log_message.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <ctime>
#include <exception>
#include <string_view>

#include "common/journal_entry.h"
#include "common/text.h"
#include "linux/reporting/log_message_internal.h"

namespace {

constexpr char system_log_socket[] = "/dev/log";

enum class sent : uint8_t { yes, no_reader, reader_is_busy };

/// Messages that the log has not accepted since the last one that it did, because it was not read.
uint64_t dropped = 0;

/// Opened once: messages are needed most when descriptors have run out.
int log_descriptor() {
    static int fd = -1;
    if (fd < 0) {
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    }
    return fd;
}

/// Never waits: a log that is not read, because its daemon is stopped or hangs, must not stop the agent.
sent send_to(std::string_view path, std::string_view datagram) {
    const int error = send_datagram(log_descriptor(), path, datagram);
    if (error == 0) {
        return sent::yes;
    }
    return error == EAGAIN || error == ENOBUFS || error == ENOMEM || error == EINTR ? sent::reader_is_busy
                                                                                    : sent::no_reader;
}

sent send_to_journal(int priority, const char* text, std::initializer_list<journal_field> fields) {
    std::string entry;
    append_journal_field(entry, "MESSAGE=", text);
    append_journal_field(entry, "PRIORITY=", std::to_string(priority));
    append_journal_field(entry, "SYSLOG_IDENTIFIER=", log_identifier);
    for (const journal_field& field : fields) {
        append_journal_field(entry, field.assignment, field.value);
    }
    return send_to(journal_socket, entry);
}

/// Needs no memory. The format is that of syslog(3).
sent send_to_syslog(int priority, const char* text) {
    const time_t now = time(nullptr);
    tm parts = {};
    char when[32] = "";
    if (localtime_r(&now, &parts) != nullptr) {
        strftime(when, sizeof when, "%b %e %H:%M:%S", &parts);
    }
    char line[3072];
    const size_t length = text_format_into(line, sizeof line, "<%d>%s %s[%d]: %s", LOG_DAEMON | priority, when,
                                           log_identifier, static_cast<int>(getpid()), text);
    return send_to(system_log_socket, std::string_view(line, length));
}

/// To the journal, or to the system's log if there is no journal.
sent send_to_any(int priority, const char* text, std::initializer_list<journal_field> fields, const char* plain_text) {
    sent result = sent::no_reader;
    try {
        result = send_to_journal(priority, text, fields);
    } catch (const std::exception&) {
        result = sent::no_reader;
    }
    return result == sent::no_reader ? send_to_syslog(priority, plain_text) : result;
}

void report_dropped() {
    char text[128];
    text_format_into(text, sizeof text, "%llu messages were dropped before this: the system's log did not take them",
                     static_cast<unsigned long long>(dropped));
    if (send_to_any(LOG_WARNING, text, {}, text) == sent::yes) {
        dropped = 0;
    }
}

std::string hexadecimal(uint32_t number) {
    return text_format("0x%08X", number);
}

const char* or_empty(const char* text) {
    return text == nullptr ? "" : text;
}

}  // namespace

void journal_send(int priority, const char* text, std::initializer_list<journal_field> fields,
                  const char* plain_text) noexcept {
    const errno_keeper keeper;
    if (dropped > 0) {
        report_dropped();
    }
    if (dropped > 0 || send_to_any(priority, text, fields, plain_text) == sent::reader_is_busy) {
        dropped++;
    }
}

void platform_log(int priority, const char* format, ...) {
    const errno_keeper keeper;
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    text_vformat_into(text, sizeof text, format, arguments);
    va_end(arguments);
    journal_send(priority, text, {}, text);
}

void log_message_send(const struct log_message_entry* entry, const char* text) {
    const errno_keeper keeper;
    if (entry == nullptr || text == nullptr) {
        return;
    }
    const int priority = entry->severity <= LOG_DEBUG ? static_cast<int>(entry->severity) : LOG_DEBUG;
    const char* facility = or_empty(entry->facility);
    const char* category = or_empty(entry->category);
    const char* name = or_empty(entry->name);
    // The system log has no fields, so the text begins with their content.
    char plain_text[2048];
    text_format_into(plain_text, sizeof plain_text, "%%%s-%s-%d-%s : %s", category, facility, priority, name, text);
    try {
        journal_send(priority, text,
                     {{"SSH_CFG_MESSAGE=", name},
                      {"SSH_CFG_NUMBER=", hexadecimal(entry->number)},
                      {"SSH_CFG_SEVERITY=", std::to_string(entry->severity)},
                      {"SSH_CFG_FACILITY=", facility},
                      {"SSH_CFG_CATEGORY=", category}},
                     plain_text);
    } catch (const std::exception&) {
        journal_send(priority, text, {}, plain_text);
    }
}

void log_message_never_wait() {
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        struct stat status = {};
        const int flags = fcntl(fd, F_GETFL);
        if (flags >= 0 && fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode)) {
            fcntl(fd, F_SETFL, flags | O_NONBLOCK);
        }
    }
}
