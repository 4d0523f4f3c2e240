#include "oper/session_mappings.h"

#include <cstddef>

namespace {

// The index of a name is its enumeration value.

constexpr std::string_view authen_types[] = {
    "password",
    "rsa-pubkey",
    "key-intr",
    "x509-rsa-pubkey",
    "x509-dsa-pubkey",
    "x509-ecdsa521-pubkey",
    "x509-ecdsa384-pubkey",
    "x509-ecdsa256-pubkey",
};

constexpr std::string_view kex_names[] = {
    "diffie-hellman-group1-sha1",
    "diffie-hellman-group14-sha1",
    "diffie-hellman-group15-sha1",
    "diffie-hellman-group16-sha1",
    "diffie-hellman-group17-sha1",
    "diffie-hellman-group18-sha1",
    "ecdh-sha2-nistp256",
    "ecdh-sha2-nistp384",
    "ecdh-sha2-nistp521",
    "curve25519-sha256",
    "diffie-hellman-group14-sha256",
    "diffie-hellman-group16-sha512",
    "curve25519-sha256@libssh.org",
};

constexpr std::string_view hostkey_types[] = {
    "ssh-dss",     "ssh-rsa",        "ecdsa-sha2-nistp521", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp256",
    "ssh-ed25519", "x509v3-ssh-rsa", "rsa-sha2-512",        "rsa-sha2-256",
};

constexpr std::string_view cipher_types[] = {
    "aes128-cbc",
    "aes192-cbc",
    "aes256-cbc",
    "3des-cbc",
    "aes128-ctr",
    "aes192-ctr",
    "aes256-ctr",
    "aes128-gcm@openssh.com",
    "aes256-gcm@openssh.com",
    "chacha20-poly1305@openssh.com",
};

constexpr std::string_view mac_types[] = {"hmac-md5", "hmac-sha1", "hmac-sha2-256", "hmac-sha2-512", "aes-gcm"};

template <size_t count>
int32_t number_of(const std::string_view (&names)[count], std::string_view name) {
    for (size_t i = 0; i < count; ++i) {
        if (names[i] == name) {
            return static_cast<int32_t>(i);
        }
    }
    return unknown_name;
}

}  // namespace

int32_t authen_type_of(std::string_view name) {
    return number_of(authen_types, name);
}
int32_t kex_name_of(std::string_view name) {
    return number_of(kex_names, name);
}
int32_t hostkey_type_of(std::string_view name) {
    return number_of(hostkey_types, name);
}
int32_t cipher_type_of(std::string_view name) {
    return number_of(cipher_types, name);
}
int32_t mac_type_of(std::string_view name) {
    return number_of(mac_types, name);
}
