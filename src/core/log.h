/// Log messages from the message catalogue. No function changes errno.
#ifndef CORE_LOG_H
#define CORE_LOG_H

#include <cstdint>

#include "platform/status.h"

/// Entries of the catalogue, in table order.
enum log_entry : uint32_t {
    ERR_BAG_DECODE,
    ERR_BAG_ENCODE,
    ERR_DETAILS,
    ERR_ERRNO,
    ERR_GENERAL,
    ERR_LTRACE_INIT,
    ERR_MALLOC,
    ERR_SHUTDOWN,
    ERR_DATASTORE_BIND,
    ERR_DATASTORE_DATALIST,
    ERR_DATASTORE_DELETE,
    ERR_DATASTORE_EVENT,
    ERR_DATASTORE_GET,
    ERR_DATASTORE_SET,
    ERR_DATASTORE_UNPACK,
    INFO_GENERAL,
    INFO_SHUTDOWN,
    STALE_SESSION,
    WARN_ERRNO,
    WARNING_FIPS,
    WARNING_GENERAL,
    log_entry_count
};

/// Entries whose format is one text: ERR_GENERAL, INFO_GENERAL, WARNING_GENERAL.
void log_text(log_entry entry, const char* text);

/// Entries of an error text, its number and a text: ERR_ERRNO, WARN_ERRNO. An errno value is also a status.
void log_status(log_entry entry, platform_status status, const char* text);

/// Entries of an error text, its number and a location or path: ERR_BAG_*, ERR_MALLOC, ERR_DATASTORE_* except EVENT.
void log_location(log_entry entry, platform_status status, const char* location);

/// ERR_DETAILS: three texts.
void log_details(const char* first, const char* second, const char* third);

/// ERR_SHUTDOWN, INFO_SHUTDOWN: counters of a reload and a text.
void log_shutdown(log_entry entry, uint32_t active, uint32_t terminated, uint32_t signals, const char* text);

/// ERR_LTRACE_INIT.
void log_trace_failure(const char* process, const char* trace_type, int size, const char* name, platform_status status);

/// ERR_DATASTORE_EVENT.
void log_unknown_event(const char* location, uint32_t event);

/// STALE_SESSION.
void log_stale_session(uint32_t stale);

/// WARNING_FIPS.
void log_fips_default();

/// The usual failures: ERR_ERRNO with errno, ERR_DATASTORE_BIND, ERR_GENERAL.
void log_errno(const char* text);
void log_bind_failure(platform_status status, const char* location);
void log_error(const char* text);

#endif
