/// RSA keys in OpenSSH's format: "ssh-rsa AAAA... comment" (RFC 4253, section 6.6).
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

/// Parses the binary form that the text encodes: the type again, exponent and modulus. Returns a status as above.
platform_status key_blob_read(std::string_view blob, uint32_t bits_max, rsa_public_key& key);

/// Returns the key's binary form.
std::string key_blob_write(const rsa_public_key& key);

#endif
