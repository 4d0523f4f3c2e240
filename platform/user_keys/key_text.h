/// Public keys as OpenSSH writes them: "ssh-rsa AAAA... comment" (RFC 4253, section 6.6). Only RSA keys are taken.
#ifndef USER_KEYS_KEY_TEXT_H
#define USER_KEYS_KEY_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/key_store.h"

/// The numbers of an RSA key, their bytes from the most significant one on, without zeros before it.
struct rsa_public_key {
    std::string modulus;
    std::string exponent;

    bool operator==(const rsa_public_key&) const = default;
};

/// Reads a key's text. Returns 0 or one of the statuses of platform/key_store.h, with `key` then untouched. May throw
/// std::bad_alloc.
platform_status key_text_read(std::string_view text, rsa_public_key& key);

/// The key's text without a comment and without a newline, fit for a file of authorized keys.
std::string key_text_write(const rsa_public_key& key);

/// The size of the modulus in bits.
uint32_t key_bits(const rsa_public_key& key);

/// The key's fingerprint as OpenSSH shows it: "SHA256:" and 43 characters. Empty when it cannot be had.
std::string key_fingerprint(const rsa_public_key& key);

#endif
