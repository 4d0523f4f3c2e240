/// Termination signals: SIGTERM and SIGINT end the process between two events, never within one.
#ifndef LINUX_PROCESS_TERMINATION_H
#define LINUX_PROCESS_TERMINATION_H

#include <systemd/sd-event.h>

/// Blocks both signals and makes the loop wait for them. When one arrives, the running handler completes its work,
/// including a whole commit; the loop then handles what is due, such as opening VRFs and sending answers, for at most two
/// seconds; then the services stop and the process ends with status 0. Returns 0 or a negative errno value.
int termination_watch(sd_event* loop);

/// Whether the process will end after its current work.
bool termination_is_pending();

#endif
