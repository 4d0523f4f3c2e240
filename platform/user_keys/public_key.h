/// A user's public key of one of the types that sshd accepts.
#ifndef USER_KEYS_PUBLIC_KEY_H
#define USER_KEYS_PUBLIC_KEY_H

#include <cstdint>
#include <string>
#include <string_view>

#include "user_keys/key_text.h"

struct public_key {
    std::string type;  ///< as in an authorized_keys line, for example "ssh-ed25519"
    std::string blob;  ///< the binary form that the line encodes (RFC 4253, section 6.6), without redundant bytes
    uint32_t bits = 0;

    bool operator==(const public_key&) const = default;
};

/// Returns whether keys of a type are accepted.
bool public_key_type_is_known(std::string_view type);

/// Returns the accepted types, separated by commas, for messages.
std::string public_key_types();

/// Returns whether a key of this type is in a security key, which can demand a touch or a PIN.
bool public_key_is_in_security_key(std::string_view type);

/// Returns whether the servers accept keys of this type in FIPS mode.
bool public_key_is_approved_for_fips(std::string_view type);

/// Parses the binary form of a key of a known type. Returns null, or the reason why it is not such a key, with `key`
/// unchanged. May throw std::bad_alloc.
const char* public_key_read(std::string_view type, std::string_view blob, public_key& key);

public_key public_key_of_rsa(const rsa_public_key& key);

/// Returns the type and the key as in an authorized_keys line, without a comment.
std::string public_key_text(const public_key& key);

/// Returns the fingerprint as OpenSSH shows it: "SHA256:" and 43 characters. Empty if it cannot be computed.
std::string public_key_fingerprint(const public_key& key);

#endif
