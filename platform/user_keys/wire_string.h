/// Strings of the SSH protocol (RFC 4251, section 5): four bytes of length, the most significant first, then the bytes.
#ifndef USER_KEYS_WIRE_STRING_H
#define USER_KEYS_WIRE_STRING_H

#include <string>
#include <string_view>

/// Removes a string from the front of `bytes` and stores it. Returns false, with both unchanged, if it is truncated.
bool wire_take_string(std::string_view& bytes, std::string_view& field);

/// May throw std::bad_alloc.
void wire_append_string(std::string& bytes, std::string_view field);

#endif
