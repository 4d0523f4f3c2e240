/// Users' public keys, which the platform's key store keeps for sshd.
#ifndef APPLIERS_USER_KEYS_H
#define APPLIERS_USER_KEYS_H

#include "platform/datastore_backend.h"

/// The item cmn/username/NAME/keystr, a text in OpenSSH's form. Refuses, with a text for the operator, what is no RSA key,
/// a key for a user that AAA does not know (EINVAL), one that was added from the exec mode (EEXIST to set, EINVAL to
/// remove), and with the store's or the datastore's error what they could not tell.
platform_status user_key_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                  const datastore_path_components* components);

/// Hands the key to the store, as DER, or removes it there. Returns 0, or 1 after a failure that has been logged.
platform_status sshd_apply_user_keystr(const datastore_change* change, const datastore_path_components* components);

#endif
