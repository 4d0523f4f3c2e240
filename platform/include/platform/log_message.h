/// Log messages to the platform's system log.
#ifndef PLATFORM_LOG_MESSAGE_H
#define PLATFORM_LOG_MESSAGE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// An entry of the program's message catalogue. Severities are those of RFC 5424 (3 error, 4 warning, 6 informational).
struct log_message_entry {
    const char* format;
    const char* facility;
    const char* category;
    const char* name;
    uint32_t severity;
    uint32_t number;
};

/// Sends one message, formatted by the entry's format. Preserves errno.
void log_message_send(const struct log_message_entry* entry, const char* text);

#ifdef __cplusplus
}
#endif

#endif
