#include "platform/value_tuple.h"

#include <errno.h>

#include <cstring>

namespace {

constexpr size_t number_size = 4;
constexpr size_t length_size = 2;

uint32_t load_little_endian(const unsigned char* bytes, size_t size) {
    uint32_t value = 0;
    for (size_t i = 0; i < size; i++) {
        value |= static_cast<uint32_t>(bytes[i]) << (8 * i);
    }
    return value;
}

void store_little_endian(unsigned char* bytes, size_t size, uint32_t value) {
    for (size_t i = 0; i < size; i++) {
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

/// Whether `format` consists of one known conversion for each of `count` fields.
bool format_is_valid(const char* format, uint32_t count) {
    if (format == nullptr || count > TUPLE_FIELDS_MAX || strlen(format) != size_t{2} * count) {
        return false;
    }
    for (size_t i = 0; i < size_t{2} * count; i += 2) {
        if (format[i] != '%' || format[i + 1] == '\0' || strchr("dsS", format[i + 1]) == nullptr) {
            return false;
        }
    }
    return true;
}

char conversion(const char* format, uint32_t field) {
    return format[2 * field + 1];
}

size_t length_limit(char conversion) {
    return conversion == 's' ? TUPLE_NAME_MAX : TUPLE_TEXT_MAX;
}

bool mask_fits(uint32_t mask, uint32_t count) {
    return count == TUPLE_FIELDS_MAX || mask >> count == 0;
}

bool present(uint32_t mask, uint32_t field) {
    return (mask >> field & 1) != 0;
}

/// The unread rest of a packed value.
struct packed_reader {
    const unsigned char* next;
    size_t left;
};

bool read_little_endian(packed_reader& reader, size_t size, uint32_t& value) {
    if (reader.left < size) {
        return false;
    }
    value = load_little_endian(reader.next, size);
    reader.next += size;
    reader.left -= size;
    return true;
}

bool read_text(packed_reader& reader, size_t limit, const char*& text) {
    uint32_t length = 0;
    if (!read_little_endian(reader, length_size, length) || length > limit || reader.left < length + 1) {
        return false;
    }
    // The terminator must be the first NUL, because an embedded one would hide part of the text.
    if (memchr(reader.next, '\0', length + 1) != reader.next + length) {
        return false;
    }
    text = reinterpret_cast<const char*>(reader.next);
    reader.next += length + 1;
    reader.left -= length + 1;
    return true;
}

bool read_field(packed_reader& reader, char conversion, tuple_field& field) {
    if (conversion != 'd') {
        return read_text(reader, length_limit(conversion), field.text);
    }
    uint32_t number = 0;
    if (!read_little_endian(reader, number_size, number)) {
        return false;
    }
    field.number = static_cast<int32_t>(number);
    return true;
}

/// The packed size of a field; 0 if the field does not match its form.
size_t packed_field_size(char conversion, const tuple_field& field) {
    if (conversion == 'd') {
        return number_size;
    }
    if (field.text == nullptr) {
        return 0;
    }
    const size_t length = strlen(field.text);
    return length <= length_limit(conversion) ? length_size + length + 1 : 0;
}

void write_field(unsigned char*& next, char conversion, const tuple_field& field) {
    if (conversion == 'd') {
        store_little_endian(next, number_size, static_cast<uint32_t>(field.number));
        next += number_size;
        return;
    }
    const size_t length = strlen(field.text);
    store_little_endian(next, length_size, static_cast<uint32_t>(length));
    memcpy(next + length_size, field.text, length + 1);
    next += length_size + length + 1;
}

}  // namespace

platform_status tuple_decode_mask(const void* packed, size_t size, const char* format, tuple_field* fields,
                                  uint32_t count, uint32_t* mask) {
    if (packed == nullptr || !format_is_valid(format, count)) {
        return TUPLE_MALFORMED;
    }
    packed_reader reader = {static_cast<const unsigned char*>(packed), size};
    uint32_t found = 0;
    if (!read_little_endian(reader, number_size, found) || !mask_fits(found, count)) {
        return TUPLE_MALFORMED;
    }
    tuple_field unpacked[TUPLE_FIELDS_MAX] = {};
    for (uint32_t i = 0; i < count; i++) {
        if (present(found, i) && !read_field(reader, conversion(format, i), unpacked[i])) {
            return TUPLE_MALFORMED;
        }
    }
    if (reader.left != 0) {
        return TUPLE_MALFORMED;
    }
    for (uint32_t i = 0; i < count; i++) {
        fields[i] = unpacked[i];
    }
    if (mask != nullptr) {
        *mask = found;
    }
    return PLATFORM_OK;
}

platform_status tuple_decode(const void* packed, size_t size, const char* format, tuple_field* fields, uint32_t count) {
    return tuple_decode_mask(packed, size, format, fields, count, nullptr);
}

platform_status tuple_encode(void* packed, size_t capacity, const char* format, const tuple_field* fields,
                             uint32_t count, uint32_t mask, size_t* size) {
    if (!format_is_valid(format, count) || !mask_fits(mask, count)) {
        return TUPLE_MALFORMED;
    }
    size_t needed = number_size;
    for (uint32_t i = 0; i < count; i++) {
        if (!present(mask, i)) {
            continue;
        }
        const size_t field_size = packed_field_size(conversion(format, i), fields[i]);
        if (field_size == 0) {
            return TUPLE_MALFORMED;
        }
        needed += field_size;
    }
    *size = needed;
    if (needed > capacity) {
        return ENOSPC;
    }
    unsigned char* next = static_cast<unsigned char*>(packed);
    store_little_endian(next, number_size, mask);
    next += number_size;
    for (uint32_t i = 0; i < count; i++) {
        if (present(mask, i)) {
            write_field(next, conversion(format, i), fields[i]);
        }
    }
    return PLATFORM_OK;
}
