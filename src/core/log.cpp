#include "core/log.h"

#include <cerrno>
#include <iterator>

#include "core/text.h"
#include "platform/log_message.h"

namespace {

constexpr size_t message_size = 1024;
constexpr uint32_t first_message_number = 0x1E00001D;

enum : uint32_t { severity_error = 3, severity_warning = 4, severity_information = 6 };

/// A row's number is its position, which enum log_entry fixes.
#define CATALOGUE_ENTRY(name, severity, format) \
    { format, "SSHD_CFG_AGT", "SECURITY", #name, severity, first_message_number + (name) }

constexpr log_message_entry catalogue[] = {
    CATALOGUE_ENTRY(ERR_BAG_DECODE, severity_error, "Error:=%s(0x%x), Location:=%s, bag decode failed"),
    CATALOGUE_ENTRY(ERR_BAG_ENCODE, severity_error, "Error:=%s(0x%x), Location:=%s, bag encode failed"),
    CATALOGUE_ENTRY(ERR_DETAILS, severity_error, "%s %s %s"),
    CATALOGUE_ENTRY(ERR_ERRNO, severity_error, "Error:=%s(0x%x), %s"),
    CATALOGUE_ENTRY(ERR_GENERAL, severity_error, "%s"),
    CATALOGUE_ENTRY(ERR_LTRACE_INIT, severity_error,
                    "process:=%s, trace-type:=%s, size:=%d, name:=%s, Error:=%s(0x%x) init failed"),
    CATALOGUE_ENTRY(ERR_MALLOC, severity_error, "Error:=%s(0x%x), Location:=%s, Failed to allocate memory"),
    CATALOGUE_ENTRY(ERR_SHUTDOWN, severity_error,
                    "Active Sessions:=%d, Sessions Terminated:=%d, signal sent during shutdown:=%d, %s"),
    CATALOGUE_ENTRY(ERR_DATASTORE_BIND, severity_error, "Error:=%s(0x%x), Location:=%s, Failed to bind to datastore"),
    CATALOGUE_ENTRY(ERR_DATASTORE_DATALIST, severity_error, "Error:=%s(0x%x), Location:=%s, Failed to list data"),
    CATALOGUE_ENTRY(ERR_DATASTORE_DELETE, severity_error,
                    "Error:=%s(0x%x), Location:=%s, Failed to delete from datastore"),
    CATALOGUE_ENTRY(ERR_DATASTORE_EVENT, severity_warning,
                    "Location:=%s, Event:=0x%x, Received unknown event from  Datastore"),
    CATALOGUE_ENTRY(ERR_DATASTORE_GET, severity_error,
                    "Error:=%s(0x%x), Location:=%s, Failed to get an item from datastore"),
    CATALOGUE_ENTRY(ERR_DATASTORE_SET, severity_error,
                    "Error:=%s(0x%x), Location:=%s, Failed to set an item in datastore"),
    CATALOGUE_ENTRY(ERR_DATASTORE_UNPACK, severity_error, "Error:=%s(0x%x), Path:=%s, Failed to unpack datastore item"),
    CATALOGUE_ENTRY(INFO_GENERAL, severity_information, "%s"),
    CATALOGUE_ENTRY(INFO_SHUTDOWN, severity_information,
                    "Active Sessions:=%d, Sessions Terminated:=%d, signal sent during shutdown:=%d, %s"),
    CATALOGUE_ENTRY(STALE_SESSION, severity_error, "Stale:=%d, stale session"),
    CATALOGUE_ENTRY(WARN_ERRNO, severity_warning, "Error:=%s(0x%x), %s"),
    CATALOGUE_ENTRY(WARNING_FIPS, severity_warning,
                    "No fips supported key-exchange algorithm configured, Using the default"),
    CATALOGUE_ENTRY(WARNING_GENERAL, severity_warning, "%s"),
};

#undef CATALOGUE_ENTRY

static_assert(std::size(catalogue) == log_entry_count);

constexpr bool rows_are_in_order() {
    for (uint32_t i = 0; i < log_entry_count; i++) {
        if (catalogue[i].number != first_message_number + i) {
            return false;
        }
    }
    return true;
}
static_assert(rows_are_in_order());

/// Formats the message and sends it. The arguments must match the entry's format.
template <typename... Arguments>
void send(log_entry entry, Arguments... arguments) {
    const int saved_errno = errno;
    char text[message_size];
    format_text(text, sizeof text, catalogue[entry].format, arguments...);
    log_message_send(&catalogue[entry], text);
    errno = saved_errno;
}

const char* shown(const char* text) {
    return text != nullptr ? text : "NULL";
}

/// The text of a status. The lookup may set errno, so errno is restored.
const char* status_text(platform_status status) {
    const int saved_errno = errno;
    const char* text = platform_status_text(status);
    errno = saved_errno;
    return text;
}

}  // namespace

void log_text(log_entry entry, const char* text) {
    send(entry, shown(text));
}

void log_status(log_entry entry, platform_status status, const char* text) {
    send(entry, status_text(status), status, shown(text));
}

void log_location(log_entry entry, platform_status status, const char* location) {
    send(entry, status_text(status), status, shown(location));
}

void log_details(const char* first, const char* second, const char* third) {
    send(ERR_DETAILS, shown(first), shown(second), shown(third));
}

void log_shutdown(log_entry entry, uint32_t active, uint32_t terminated, uint32_t signals, const char* text) {
    send(entry, static_cast<int>(active), static_cast<int>(terminated), static_cast<int>(signals), shown(text));
}

void log_trace_failure(const char* process, const char* trace_type, int size, const char* name,
                       platform_status status) {
    send(ERR_LTRACE_INIT, shown(process), shown(trace_type), size, shown(name), status_text(status), status);
}

void log_unknown_event(const char* location, uint32_t event) {
    send(ERR_DATASTORE_EVENT, shown(location), event);
}

void log_stale_session(uint32_t stale) {
    send(STALE_SESSION, static_cast<int>(stale));
}

void log_fips_default() {
    log_message_send(&catalogue[WARNING_FIPS], catalogue[WARNING_FIPS].format);
}

void log_errno(const char* text) {
    log_status(ERR_ERRNO, static_cast<platform_status>(errno), text);
}

void log_bind_failure(platform_status status, const char* location) {
    log_location(ERR_DATASTORE_BIND, status, location);
}

void log_error(const char* text) {
    log_text(ERR_GENERAL, text);
}
