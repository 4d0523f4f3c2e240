/// Public keys as DER SubjectPublicKeyInfo (RFC 5280, section 4.1; for RSA RFC 3279, section 2.3.1).
#ifndef USER_KEYS_KEY_DER_H
#define USER_KEYS_KEY_DER_H

#include <string>
#include <string_view>

#include "user_keys/key_text.h"

/// Stores the key's DER form. KEY_TOO_LARGE above KEY_STORE_DER_MAX bytes, ENOMEM if it cannot be built; `der` is
/// unchanged on failure. May throw std::bad_alloc.
platform_status key_der_make(const rsa_public_key& key, std::string& der);

/// Reads a key's DER form, without trailing bytes. EBADMSG if it is not an RSA key. May throw std::bad_alloc.
platform_status key_der_read(std::string_view der, rsa_public_key& key);

#endif
