/// The files from which sshd reads users' keys, against the key store.
#ifndef LINUX_HOST_KEY_FILES_H
#define LINUX_HOST_KEY_FILES_H

#include "platform/enforcement.h"

/// Compares content, owner and mode of the users' files with the keys that are valid, and with `repair` writes or removes
/// what differs. Reports "key USER". Returns how many differences remain. Throws std::bad_alloc.
int key_files_compare(bool repair, enforcement_difference_sink sink, void* sink_context);

#endif
