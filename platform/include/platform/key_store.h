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

/// Why a key text is not accepted, or a key not changed.
enum {
    KEY_NOT_BASE64 = 0x40858200,
    KEY_CUT_OFF = 0x40858400,         ///< the text, or the data that it encodes, is truncated
    KEY_TRAILING_BYTES = 0x40858600,  ///< extra bytes follow the key's last field
    KEY_OTHER_TYPE = 0x40858800,      ///< the text does not begin with the word "ssh-rsa"
    KEY_TYPES_DIFFER = 0x40858a00,    ///< it does, but the encoded key is of another type
    KEY_WRONG_EXPONENT = 0x40858c00,  ///< not an odd number of at least 3, or longer than 64 bits
    KEY_WRONG_MODULUS = 0x40858e00,   ///< not an odd positive number
    KEY_TOO_SMALL = 0x40859200,       ///< below 1024 bits, which no server accepts
    KEY_TOO_LARGE = 0x40859400,       ///< its DER form takes more than KEY_STORE_DER_MAX bytes
    KEY_OTHER_ORIGIN = 0x40859600     ///< the user's key was added in another way, and the change must not affect it
};

struct key_store_key {
    uint32_t present;             ///< 1 when the user has a key
    uint32_t added_by_exec_mode;  ///< 1 when it was added outside the configuration
    uint32_t bits;
};

/// Looks up the key of a type under a label (the user's name). A user without one is not an error: `present` is 0.
platform_status key_store_get_user_key(const char* label, uint32_t type, struct key_store_key* key);

/// Turns an OpenSSH public key text ("ssh-rsa AAAA... comment", RFC 4253) into DER SubjectPublicKeyInfo (RFC 5280) of at
/// most KEY_STORE_DER_MAX bytes, and stores the key's size in bits. Returns one of the statuses above for an invalid key,
/// ENOSPC when `capacity` is too small; the outputs are then unchanged. A comment after the key is ignored.
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

/// Stores a configured key in place of the user's previous one, or removes it; durable when it returns. Removing the key
/// of a user without one is not an error. KEY_OTHER_ORIGIN when the user's key was added from the exec mode.
platform_status key_store_set_key(const struct key_store_set_request* request);

#ifdef __cplusplus
}
#endif

#endif
