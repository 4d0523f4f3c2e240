/// Users' public keys, which the platform's key store keeps for sshd.
#ifndef APPLIERS_USER_KEYS_H
#define APPLIERS_USER_KEYS_H

#include "platform/datastore_backend.h"

/// The item cmn/username/NAME/keystr, a text in OpenSSH format. Refuses, with a text for the operator, anything but an
/// RSA key, a key for a user unknown to AAA (EINVAL), and a key that was added from the exec mode (EEXIST to set,
/// EINVAL to remove). If the store or the datastore cannot answer, refuses with its error.
platform_status user_key_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                  const datastore_path_components* components);

/// Passes the key to the store as DER, or removes it there. Returns 0, or 1 after a failure, which is logged.
platform_status sshd_apply_user_keystr(const datastore_change* change, const datastore_path_components* components);

#endif
