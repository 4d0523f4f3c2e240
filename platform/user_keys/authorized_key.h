/// Lines of authorized_keys files: options, key and comment.
///
/// A refusal says what is wrong and what is expected. It never repeats text that could be part of a private key.
#ifndef USER_KEYS_AUTHORIZED_KEY_H
#define USER_KEYS_AUTHORIZED_KEY_H

#include <string>
#include <string_view>
#include <vector>

#include "user_keys/public_key.h"

struct authorized_key {
    std::string options;  ///< as key_options_read() stores them; empty if there are none
    public_key key;
    std::string comment;  ///< empty if there is none

    bool operator==(const authorized_key&) const = default;
};

inline constexpr size_t authorized_keys_max = 64;        ///< of one user
inline constexpr size_t authorized_key_line_max = 8192;  ///< bytes

/// Parses one line. On failure, returns false and stores the reason in `refusal`. May throw std::bad_alloc.
bool authorized_key_read(std::string_view line, authorized_key& key, std::string& refusal);

/// Parses a file with at least one key; blank lines and comments are skipped. A key may occur only once. On failure, returns
/// false and stores in `refusal` the number of the line and the reason. May throw std::bad_alloc.
bool authorized_keys_read(std::string_view text, std::vector<authorized_key>& keys, std::string& refusal);

/// Returns whether the keys are at most authorized_keys_max different ones. If they are not, stores the reason in `refusal`;
/// `place` is what the message calls the place of a key, for example "line", and `numbers` contains the places, which are
/// the positions from 1 if it is empty.
bool authorized_keys_are_distinct(const std::vector<authorized_key>& keys, const char* place,
                                  const std::vector<size_t>& numbers, std::string& refusal);

/// Returns the line, without a newline.
std::string authorized_key_line(const authorized_key& key);

#endif
