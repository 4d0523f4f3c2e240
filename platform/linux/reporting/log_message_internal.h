/// Log messages of the Linux platform itself.
#ifndef LINUX_REPORTING_LOG_MESSAGE_INTERNAL_H
#define LINUX_REPORTING_LOG_MESSAGE_INTERNAL_H

#include <cerrno>
#include <initializer_list>

#include "common/journal_entry.h"
#include "platform/log_message.h"

/// The name under which everything is logged.
inline constexpr char log_identifier[] = "ssh_cfg_agent";

/// Gives errno back as it was, whatever the scope has called.
class errno_keeper {
  public:
    errno_keeper() : saved(errno) {}
    ~errno_keeper() { errno = saved; }
    errno_keeper(const errno_keeper&) = delete;
    errno_keeper& operator=(const errno_keeper&) = delete;

  private:
    int saved;
};

/// Logs one line, made as by printf and cut at 1023 characters, at a priority of syslog(3). Leaves errno alone.
void platform_log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Standard output and error do not wait either where they lead to the journal, as they do in a service.
void log_message_never_wait();

/// Sends one entry: `text` and `priority` with the further fields to the journal; `plain_text` to the system's log when
/// there is no journal. Never waits: messages that cannot be sent at once are counted, and the count is sent before the next
/// message that can be. Leaves errno alone.
void journal_send(int priority, const char* text, std::initializer_list<journal_field> fields,
                  const char* plain_text) noexcept;

#endif
