/// Switching FIPS mode on and off, at start and at run time: what it does to the server's and the client's files.
#ifndef FIPS_FIPS_SWITCH_H
#define FIPS_FIPS_SWITCH_H

#include <cstdint>

#include "platform/datastore.h"

/// Marks the server's files (`on` 1) or takes the mark away (0), and writes the host-key lines: the algorithms of
/// `host_key_list`, with the files of fips_hostkey_files when on and the server's own when off. The client gets the list,
/// or its default when off. Returns 0, or -1 after a failure that has been reported.
int norvossh_set_fips_mode(uint32_t on, const char* host_key_list);

/// Reacts to a change of the switch: a creation narrows every list, a removal brings the lists in force back, a mere
/// change of its value does nothing. Failures are only reported, and may leave the files partly changed.
void norvossh_notify_fips_mode(const datastore_notification* notification, void* context);

/// Start-up: brings the files into the state that the switch asks for and registers for its changes. Without FIPS mode
/// the cipher and key-exchange lines leave the files, so that servers and clients use the defaults of their own.
/// Returns 0 or the status of what failed, which has been logged.
platform_status norvossh_fips_register();

#endif
