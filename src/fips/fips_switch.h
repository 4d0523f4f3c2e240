/// Switching FIPS mode on and off, at start-up and at run time: its effect on the files of the server and the client.
#ifndef FIPS_FIPS_SWITCH_H
#define FIPS_FIPS_SWITCH_H

#include <cstdint>

#include "platform/datastore.h"

/// Marks the server's files (`on` 1) or removes the mark (0), and writes the host-key lines: the algorithms of
/// `host_key_list`, with the files of fips_hostkey_files if on and the server's own if off. The client gets the list,
/// or its default if off. Returns 0, or -1 after a failure, which is reported.
int norvossh_set_fips_mode(uint32_t on, const char* host_key_list);

/// Reacts to a change of the switch: creation filters every list, removal restores the lists in force, a mere change of
/// its value has no effect. Failures are only reported, and may leave the files partly changed.
void norvossh_notify_fips_mode(const datastore_notification* notification, void* context);

/// Start-up: brings the files into the state that the switch requires, and registers for its changes. Without FIPS
/// mode, the cipher and key-exchange lines are removed from the files, so that servers and clients use their own
/// defaults. Returns 0 or the status of the failed call, which is logged.
platform_status norvossh_fips_register();

#endif
