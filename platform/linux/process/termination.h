/// Termination signals: SIGTERM and SIGINT end the process between two events, never within one.
#ifndef LINUX_PROCESS_TERMINATION_H
#define LINUX_PROCESS_TERMINATION_H

#include <systemd/sd-event.h>

/// Blocks both signals and has the loop wait for them. When one has arrived, the running handler finishes its work, with
/// the whole of a commit; the loop then carries out what is due, such as the opening of VRFs and the sending of answers,
/// for at most two seconds; then the services stop and the process ends with status 0. Returns 0 or a negative errno
/// value.
int termination_watch(sd_event* loop);

/// Whether the process is to end as soon as its present work is done.
bool termination_is_pending();

#endif
