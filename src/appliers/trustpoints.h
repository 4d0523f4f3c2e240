/// Trustpoints of the server, and which field of a user's certificate names the user.
#ifndef APPLIERS_TRUSTPOINTS_H
#define APPLIERS_TRUSTPOINTS_H

#include "platform/datastore_backend.h"

/// The host's trustpoint, a text item. Returns 0, or 1 for a set without a text and for an event of another kind.
platform_status sshd_apply_trustpoint_host(const datastore_change* change, const datastore_path_components* components);

/// Refuses (with EINVAL and a text for the operator) a new name when the list holds user_trustpoint_max others. The list
/// is the one in force: what else the same commit adds or removes does not count.
platform_status user_trustpoint_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                         const datastore_path_components* components);

/// A user trustpoint, named by the last component. Removing one puts the last into its place. Returns 0, or 1 without a
/// name and for an event of another kind.
platform_status sshd_apply_trustpoint_user(const datastore_change* change, const datastore_path_components* components);

/// The tuple of two flags, common name and user principal name; without the item the common name. Returns 0.
platform_status ssh_apply_certificate_username(const datastore_change* change,
                                               const datastore_path_components* components);

#endif
