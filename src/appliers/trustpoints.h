/// Trustpoints of the server, and the field of a user's certificate that names the user.
#ifndef APPLIERS_TRUSTPOINTS_H
#define APPLIERS_TRUSTPOINTS_H

#include "platform/datastore_backend.h"

/// The host's trustpoint, a text item. Returns 0, or 1 for a set without a text and for any other kind of event.
platform_status sshd_apply_trustpoint_host(const datastore_change* change, const datastore_path_components* components);

/// Refuses (with EINVAL and a text for the operator) a new name if the list already holds user_trustpoint_max others.
/// That is the list in force: other additions and removals of the same commit do not count.
platform_status user_trustpoint_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                         const datastore_path_components* components);

/// A user trustpoint, named by the last component. Removing one moves the last one into its slot. Returns 0, or 1
/// without a name and for any other kind of event.
platform_status sshd_apply_trustpoint_user(const datastore_change* change, const datastore_path_components* components);

/// The tuple of two flags, common name and user principal name; the default is the common name. Returns 0.
platform_status ssh_apply_certificate_username(const datastore_change* change,
                                               const datastore_path_components* components);

#endif
