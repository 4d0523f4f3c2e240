#include "platform/log_message.h"

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cstdarg>
#include <exception>
#include <vector>

#include "common/text.h"
#include "linux/reporting/log_message_internal.h"

namespace {

constexpr char journal_socket[] = "/run/systemd/journal/socket";

/// Returns true if the journal accepted the entry. The library reports success even without a journal, hence the check
/// for its socket.
bool send_to_journal(int priority, const char* text, std::initializer_list<journal_field> fields) {
    if (access(journal_socket, F_OK) != 0) {
        return false;
    }
    std::vector<std::string> lines = {std::string("MESSAGE=") + text, "PRIORITY=" + std::to_string(priority),
                                      std::string("SYSLOG_IDENTIFIER=") + log_identifier};
    for (const journal_field& field : fields) {
        lines.push_back(field.assignment + field.value);
    }
    std::vector<iovec> parts;
    parts.reserve(lines.size());
    for (std::string& line : lines) {
        parts.push_back({line.data(), line.size()});
    }
    return sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) >= 0;
}

void send_to_syslog(int priority, const char* text) {
    static const bool opened = [] {
        openlog(log_identifier, LOG_PID | LOG_NDELAY, LOG_DAEMON);
        return true;
    }();
    static_cast<void>(opened);
    syslog(priority, "%s", text);
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
    bool sent = false;
    try {
        sent = send_to_journal(priority, text, fields);
    } catch (const std::exception&) {
        sent = false;
    }
    if (!sent) {
        send_to_syslog(priority, plain_text);
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
                     {{"SSH_CFG_NAME=", name},
                      {"SSH_CFG_NUMBER=", hexadecimal(entry->number)},
                      {"SSH_CFG_SEVERITY=", std::to_string(entry->severity)},
                      {"SSH_CFG_FACILITY=", facility},
                      {"SSH_CFG_CATEGORY=", category}},
                     plain_text);
    } catch (const std::exception&) {
        send_to_syslog(priority, plain_text);
    }
}
