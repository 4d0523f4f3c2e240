/// Why the rules of an access list could not be loaded, for the report to the operator.
///
/// The routines that read, write and load rules log their failures; here they record the first reason, in one line, for the
/// caller, which knows the VRF and the list.
#ifndef ACL_LOAD_FAILURE_H
#define ACL_LOAD_FAILURE_H

/// Clears the reason of an earlier load.
void clear_load_failure();

/// Records the reason unless one is recorded already. Leaves errno alone.
[[gnu::format(printf, 1, 2)]] void note_load_failure(const char* format, ...);

/// The reason recorded since the last clear_load_failure(), or a general one.
const char* load_failure();

#endif
