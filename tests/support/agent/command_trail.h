/// Puts what the agent does through the shell, and the time it sleeps, among the calls that the fake platform records.
///
/// Covers system() and popen() ("$ systemctl daemon-reload") and sleep() ("sleep(2)"). The commands run as ever, against
/// the stand-ins; a sleep takes no time.
#ifndef SUPPORT_COMMAND_TRAIL_H
#define SUPPORT_COMMAND_TRAIL_H

#include <functional>
#include <string>

namespace command_trail {

/// Records from here on, until end(). Without it the three functions are the C library's.
void begin();
void end();

/// Lets the shell itself fail for commands that begin with `prefix`: system() gives -1 and popen() null, with errno.
void fail_shell(std::string prefix, int error);

/// Called in every sleep, after it is recorded.
void on_sleep(std::function<void()> action);

}  // namespace command_trail

#endif
