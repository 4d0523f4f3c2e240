/// The options in front of a key in an authorized_keys file (sshd(8), AUTHORIZED_KEYS FILE FORMAT).
///
/// Accepted are the options that sshd carries out for a plain key with the router's server files. A value is checked as
/// strictly as sshd checks it when the key is used, because sshd then refuses the key, or an option would have no effect.
#ifndef USER_KEYS_KEY_OPTIONS_H
#define USER_KEYS_KEY_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct key_options {
    std::string text;                ///< as written, with the names in their usual spelling; empty if there are none
    std::optional<int64_t> expires;  ///< when the key ceases to be valid, in seconds since the epoch
    std::string for_security_keys;   ///< the name of an option that has an effect only on security keys; empty if none
};

/// Parses comma-separated options. On failure, returns false and stores in `refusal` what is wrong and what is expected. May
/// throw std::bad_alloc.
bool key_options_read(std::string_view text, key_options& options, std::string& refusal);

/// Returns the length of the options at the front of a line: they end at the first blank outside double quotes.
size_t key_options_size(std::string_view line);

#endif
