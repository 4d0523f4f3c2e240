/// Why the rules of an access list could not be loaded, for the report to the operator.
///
/// The routines that read, write and load rules log their failures themselves; here they leave the first reason, in one line,
/// for the caller that knows which VRF and list it concerns.
#ifndef ACL_LOAD_FAILURE_H
#define ACL_LOAD_FAILURE_H

/// Forgets the reason of an earlier load.
void clear_load_failure();

/// Notes the reason, unless there is one already. Leaves errno alone.
[[gnu::format(printf, 1, 2)]] void note_load_failure(const char* format, ...);

/// The reason noted since the last clear_load_failure(), or a general one.
const char* load_failure();

#endif
