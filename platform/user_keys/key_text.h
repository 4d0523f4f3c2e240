/// Public keys in OpenSSH's format: "ssh-rsa AAAA... comment" (RFC 4253, section 6.6). Only RSA keys are accepted.
#ifndef USER_KEYS_KEY_TEXT_H
#define USER_KEYS_KEY_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/key_store.h"

/// The numbers of an RSA key, big-endian and without leading zeros.
struct rsa_public_key {
    std::string modulus;
    std::string exponent;

    bool operator==(const rsa_public_key&) const = default;
};

/// Parses a key. Returns 0 or one of the statuses in platform/key_store.h, with `key` then unchanged. May throw
/// std::bad_alloc.
platform_status key_text_read(std::string_view text, rsa_public_key& key);

/// The key in OpenSSH's format without comment and newline, for an authorized_keys file.
std::string key_text_write(const rsa_public_key& key);

/// The size of the modulus in bits.
uint32_t key_bits(const rsa_public_key& key);

/// The key's fingerprint as OpenSSH shows it: "SHA256:" and 43 characters. Empty if it cannot be computed.
std::string key_fingerprint(const rsa_public_key& key);

#endif
