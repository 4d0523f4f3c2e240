/// Public keys as DER SubjectPublicKeyInfo (RFC 5280, section 4.1; for RSA RFC 3279, section 2.3.1).
#ifndef USER_KEYS_KEY_DER_H
#define USER_KEYS_KEY_DER_H

#include <string>
#include <string_view>

#include "user_keys/key_text.h"

/// Stores the key's DER form. KEY_TOO_LARGE above KEY_STORE_DER_MAX bytes, ENOMEM when it cannot be made; `der` is then
/// untouched. May throw std::bad_alloc.
platform_status key_der_make(const rsa_public_key& key, std::string& der);

/// Reads a key's DER form, of which nothing may be left over. EBADMSG when it is no RSA key's. May throw std::bad_alloc.
platform_status key_der_read(std::string_view der, rsa_public_key& key);

#endif
