/// Names of algorithms and the lists that are in force by default, outside and in FIPS mode.
///
/// The names with a domain are the identifiers that OpenSSH and libssh have registered (RFC 4251, section 6).
#ifndef CONFIG_FILES_ALGORITHM_NAMES_H
#define CONFIG_FILES_ALGORITHM_NAMES_H

// Macros, so that lists of them are made by the compiler and stay texts of one piece.
#define ALGORITHM_AES128_GCM "aes128-gcm@openssh.com"
#define ALGORITHM_AES256_GCM "aes256-gcm@openssh.com"
#define ALGORITHM_CHACHA20_POLY1305 "chacha20-poly1305@openssh.com"
#define ALGORITHM_CURVE25519_SHA256 "curve25519-sha256"
#define ALGORITHM_CURVE25519_SHA256_LIBSSH "curve25519-sha256@libssh.org"

inline constexpr char default_cipher_list[] =
    "aes128-ctr,aes192-ctr,aes256-ctr," ALGORITHM_AES128_GCM "," ALGORITHM_AES256_GCM "," ALGORITHM_CHACHA20_POLY1305;

inline constexpr char fips_cipher_list[] =
    "aes128-ctr,aes192-ctr,aes256-ctr," ALGORITHM_AES128_GCM "," ALGORITHM_AES256_GCM;

inline constexpr char legacy_aes_ciphers[] = "aes128-cbc,aes192-cbc,aes256-cbc";

inline constexpr char default_mac_list[] = "hmac-sha2-512,hmac-sha2-256,hmac-sha1";

inline constexpr char default_kex_list[] =
    "ecdh-sha2-nistp521,ecdh-sha2-nistp384,ecdh-sha2-nistp256,diffie-hellman-group14-sha1," ALGORITHM_CURVE25519_SHA256
    ",diffie-hellman-group14-sha256,diffie-hellman-group16-sha512," ALGORITHM_CURVE25519_SHA256_LIBSSH;

inline constexpr char fips_kex_list[] =
    "ecdh-sha2-nistp521,ecdh-sha2-nistp384,ecdh-sha2-nistp256,diffie-hellman-group14-sha1,diffie-hellman-group14-sha256,diffie-hellman-group16-sha512";

inline constexpr char default_server_host_key_algorithms[] =
    "x509v3-ssh-rsa,ecdsa-sha2-nistp256,ecdsa-sha2-nistp384,ecdsa-sha2-nistp521,ssh-ed25519,rsa-sha2-512,rsa-sha2-256,ssh-rsa,ssh-dss";

inline constexpr char default_client_host_key_algorithms[] =
    "ecdsa-sha2-nistp256,ecdsa-sha2-nistp384,ecdsa-sha2-nistp521,ssh-ed25519,rsa-sha2-512,rsa-sha2-256,ssh-rsa,ssh-dss";

inline constexpr char default_host_keys[] =
    "/pkg/ecdsa-sha2-nistp256,/pkg/ecdsa-sha2-nistp384,/pkg/ecdsa-sha2-nistp521,/pkg/ed25519,/pkg/rsa,/pkg/dsa";

inline constexpr char fips_host_key_algorithms[] =
    "ecdsa-sha2-nistp521,ecdsa-sha2-nistp384,ecdsa-sha2-nistp256,rsa-sha2-512,rsa-sha2-256";

inline constexpr char fips_host_keys[] =
    "/pkg/ecdsa-sha2-nistp521,/pkg/ecdsa-sha2-nistp384,/pkg/ecdsa-sha2-nistp256,/pkg/rsa";

inline constexpr char default_accepted_algorithms[] =
    "x509v3-ssh-rsa,x509v3-ecdsa-sha2-nistp256,x509v3-ecdsa-sha2-nistp384,x509v3-ecdsa-sha2-nistp521,x509v3-ssh-dss,ssh-rsa";

#endif
