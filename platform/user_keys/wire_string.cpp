#include "user_keys/wire_string.h"

#include <cstdint>

bool wire_take_string(std::string_view& bytes, std::string_view& field) {
    if (bytes.size() < sizeof(uint32_t)) {
        return false;
    }
    uint32_t size = 0;
    for (size_t i = 0; i < sizeof size; i++) {
        size = size << 8 | static_cast<unsigned char>(bytes[i]);
    }
    if (bytes.size() - sizeof size < size) {
        return false;
    }
    field = bytes.substr(sizeof size, size);
    bytes.remove_prefix(sizeof size + size);
    return true;
}

void wire_append_string(std::string& bytes, std::string_view field) {
    const auto size = static_cast<uint32_t>(field.size());
    for (const int shift : {24, 16, 8, 0}) {
        bytes += static_cast<char>(size >> shift & 0xff);
    }
    bytes += field;
}
