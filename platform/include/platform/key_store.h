/// Key store: users' public keys.
#ifndef PLATFORM_KEY_STORE_H
#define PLATFORM_KEY_STORE_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { KEY_STORE_USER_PUBLIC_KEY = 17, KEY_STORE_DER_MAX = 1024 };

struct key_store_key {
    uint32_t present;             ///< 1 when the user has a key
    uint32_t added_by_exec_mode;  ///< 1 when it was not added by configuration
    uint32_t bits;
};

/// Asks for the key of a type under a label (the user's name). A user without one is no error: `present` is 0.
platform_status key_store_get_user_key(const char* label, uint32_t type, struct key_store_key* key);

/// Turns an OpenSSH public key text ("ssh-rsa AAAA... comment", RFC 4253) into DER SubjectPublicKeyInfo (RFC 5280) of at
/// most KEY_STORE_DER_MAX bytes, and stores the key's size in bits.
platform_status key_store_pubkey_to_der(const char* text, uint8_t* der, size_t capacity, size_t* size, uint32_t* bits);

struct key_store_set_request {
    const char* label;
    uint32_t type;
    uint32_t remove;  ///< 1 removes the key; the fields below are then unused
    time_t time;
    uint32_t bits;
    const uint8_t* der;
    size_t size;
};

platform_status key_store_set_key(const struct key_store_set_request* request);

#ifdef __cplusplus
}
#endif

#endif
