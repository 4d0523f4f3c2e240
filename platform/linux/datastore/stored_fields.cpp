#include "linux/datastore/stored_fields.h"

#include <cstring>

void stored_fields_append(std::string& bytes, uint64_t number) {
    bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
}

void stored_fields_append(std::string& bytes, std::string_view text) {
    stored_fields_append(bytes, text.size());
    bytes += text;
}

std::string_view stored_fields_reader::take(size_t size) {
    if (size > rest_.size()) {
        valid_ = false;
        rest_ = {};
        return {};
    }
    const std::string_view taken = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return taken;
}

uint64_t stored_fields_reader::number() {
    uint64_t number = 0;
    const std::string_view bytes = take(sizeof number);
    if (bytes.size() == sizeof number) {
        memcpy(&number, bytes.data(), sizeof number);
    }
    return number;
}

std::string stored_fields_reader::text() {
    return std::string(take(number()));
}
