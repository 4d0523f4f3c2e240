/// Encoding of records.
///
/// Encoded form, little-endian, no padding. First a uint32_t, the hash of the compact schema, so that a record of one
/// type is never decoded as another. Then the fields in order. Numbers are stored as they are; fixed text and text as a
/// uint32_t length and the characters (the length of a text is one more, and 0 is a null pointer); arrays and lists as
/// a uint32_t count and the elements without their links; pointers and optional values as a byte, 0 or 1, and the
/// value.
#include "platform/record_codec.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "common/record_registry.h"

namespace {

constexpr size_t encoded_max = 64U << 20;      // bytes of one record
constexpr size_t allocation_max = 256U << 20;  // bytes that decoding one record may allocate
constexpr uint32_t elements_max = 1U << 20;    // per list or array; a longer list is taken for a cycle
constexpr int depth_max = 16;                  // nesting of structures

/// FNV-1a, 32 bit.
uint32_t hash_of(const char* text) {
    uint32_t hash = 2166136261U;
    for (; *text != '\0'; ++text) {
        hash = (hash ^ static_cast<unsigned char>(*text)) * 16777619U;
    }
    return hash;
}

template <typename value_type>
value_type load(const void* from) {
    value_type value;
    memcpy(&value, from, sizeof(value));
    return value;
}

template <typename value_type>
void store(void* to, value_type value) {
    memcpy(to, &value, sizeof(value));
}

/// A counted array as stored in a structure.
struct native_array {
    uint32_t count;
    unsigned char* elements;
};

size_t optional_size(const record_field& field) {
    return field.optional_letter == 'I' ? sizeof(uint16_t) : sizeof(uint32_t);
}

class encoder {
  public:
    explicit encoder(const record_schema& schema) : schema_(schema) {}

    bool encode(const void* record, const char* compact_schema) {
        put(hash_of(compact_schema));
        const auto* bytes = static_cast<const unsigned char*>(record);
        return schema_.record().linked ? put_list(schema_.record(), bytes, 0) : put_fields(schema_.record(), bytes, 0);
    }

    const std::string& bytes() const { return bytes_; }

  private:
    template <typename value_type>
    void put(value_type value) {
        bytes_.append(reinterpret_cast<const char*>(&value), sizeof(value));
    }

    bool put_fields(const record_definition& definition, const unsigned char* base, int depth) {
        if (depth > depth_max || bytes_.size() > encoded_max) {
            return false;
        }
        for (const record_field& field : definition.fields) {
            if (!put_field(field, base + field.offset, depth)) {
                return false;
            }
        }
        return true;
    }

    bool put_field(const record_field& field, const unsigned char* at, int depth) {
        switch (field.kind) {
            case record_field_kind::boolean:
                put(load<uint32_t>(at));
                return load<uint32_t>(at) <= 1;
            case record_field_kind::number16:
                put(load<uint16_t>(at));
                return true;
            case record_field_kind::number8:
                put(*at);
                return true;
            case record_field_kind::bytes:
                bytes_.append(reinterpret_cast<const char*>(at), field.width);
                return true;
            case record_field_kind::fixed_text:
                return put_fixed_text(field, reinterpret_cast<const char*>(at));
            case record_field_kind::text:
                return put_text(load<const char*>(at));
            case record_field_kind::array:
                return put_array(schema_.type_of(field), load<native_array>(at), depth);
            case record_field_kind::pointer:
                return put_pointer(schema_.type_of(field), load<const unsigned char*>(at), depth);
            case record_field_kind::link:
                return true;  // written by put_list
            case record_field_kind::optional_value:
                return put_optional(field, load<const unsigned char*>(at));
            case record_field_kind::embedded:
                return put_fields(schema_.type_of(field), at, depth + 1);
            default:
                put(load<uint32_t>(at));
                return true;
        }
    }

    bool put_fixed_text(const record_field& field, const char* text) {
        const size_t length = strnlen(text, field.width);
        put(static_cast<uint32_t>(length));
        bytes_.append(text, length);
        return length < field.width;
    }

    bool put_text(const char* text) {
        if (text == nullptr) {
            put(uint32_t{0});
            return true;
        }
        const size_t length = strlen(text);
        if (length >= encoded_max) {
            return false;
        }
        put(static_cast<uint32_t>(length + 1));
        bytes_.append(text, length);
        return true;
    }

    bool put_array(const record_definition& type, const native_array& array, int depth) {
        if (array.count > elements_max || (array.count != 0 && array.elements == nullptr)) {
            return false;
        }
        put(array.count);
        for (uint32_t i = 0; i < array.count; ++i) {
            const unsigned char* element = array.elements + i * type.size;
            // The elements of an array are consecutive, so none may have a link of its own.
            if (type.linked && load<const void*>(element + type.link_offset()) != nullptr) {
                return false;
            }
            if (!put_fields(type, element, depth + 1)) {
                return false;
            }
        }
        return true;
    }

    bool put_pointer(const record_definition& type, const unsigned char* target, int depth) {
        if (type.linked) {
            return put_list(type, target, depth + 1);
        }
        put(static_cast<uint8_t>(target != nullptr ? 1 : 0));
        return target == nullptr || put_fields(type, target, depth + 1);
    }

    bool put_list(const record_definition& type, const unsigned char* first, int depth) {
        const size_t count_at = bytes_.size();
        put(uint32_t{0});
        uint32_t count = 0;
        for (const unsigned char* element = first; element != nullptr;
             element = load<const unsigned char*>(element + type.link_offset())) {
            if (++count > elements_max || !put_fields(type, element, depth)) {
                return false;
            }
        }
        memcpy(bytes_.data() + count_at, &count, sizeof(count));
        return true;
    }

    bool put_optional(const record_field& field, const unsigned char* value) {
        put(static_cast<uint8_t>(value != nullptr ? 1 : 0));
        if (value != nullptr) {
            bytes_.append(reinterpret_cast<const char*>(value), optional_size(field));
        }
        return value == nullptr || field.optional_letter != 'b' || load<uint32_t>(value) <= 1;
    }

    const record_schema& schema_;
    std::string bytes_;
};

class decoder {
  public:
    decoder(const record_schema& schema, const void* encoded, size_t size)
        : schema_(schema), at_(static_cast<const unsigned char*>(encoded)), end_(at_ + size) {}

    /// On failure, everything allocated so far belongs to the record, so that record_release frees it.
    platform_status decode(void* record, const char* compact_schema) {
        uint32_t hash = 0;
        auto* base = static_cast<unsigned char*>(record);
        const bool good = get(hash) && hash == hash_of(compact_schema) &&
                          (schema_.record().linked ? get_root_list(base) : get_fields(schema_.record(), base, 0)) &&
                          at_ == end_;
        if (good) {
            return PLATFORM_OK;
        }
        return out_of_memory_ ? platform_status{ENOMEM} : platform_status{RECORD_MALFORMED};
    }

  private:
    size_t left() const { return static_cast<size_t>(end_ - at_); }

    template <typename value_type>
    bool get(value_type& value) {
        return get_bytes(&value, sizeof(value));
    }

    bool get_bytes(void* to, size_t size) {
        if (left() < size) {
            return false;
        }
        memcpy(to, at_, size);
        at_ += size;
        return true;
    }

    unsigned char* allocate(size_t count, size_t size) {
        allocated_ += count * size;
        void* memory = allocated_ <= allocation_max ? calloc(count, size) : nullptr;
        out_of_memory_ = out_of_memory_ || memory == nullptr;
        return static_cast<unsigned char*>(memory);
    }

    bool get_fields(const record_definition& definition, unsigned char* base, int depth) {
        if (depth > depth_max) {
            return false;
        }
        for (const record_field& field : definition.fields) {
            if (!get_field(field, base + field.offset, depth)) {
                return false;
            }
        }
        return true;
    }

    bool get_field(const record_field& field, unsigned char* at, int depth) {
        switch (field.kind) {
            case record_field_kind::boolean:
                return get_bytes(at, sizeof(uint32_t)) && load<uint32_t>(at) <= 1;
            case record_field_kind::number16:
                return get_bytes(at, sizeof(uint16_t));
            case record_field_kind::number8:
                return get_bytes(at, 1);
            case record_field_kind::bytes:
                return get_bytes(at, field.width);
            case record_field_kind::fixed_text:
                return get_fixed_text(field, at);
            case record_field_kind::text:
                return get_text(at);
            case record_field_kind::array:
                return get_array(schema_.type_of(field), at, depth);
            case record_field_kind::pointer:
                return get_pointer(schema_.type_of(field), at, depth);
            case record_field_kind::link:
                return true;  // set by get_list
            case record_field_kind::optional_value:
                return get_optional(field, at);
            case record_field_kind::embedded:
                return get_fields(schema_.type_of(field), at, depth + 1);
            default:
                return get_bytes(at, sizeof(uint32_t));
        }
    }

    bool get_fixed_text(const record_field& field, unsigned char* at) {
        uint32_t length = 0;
        if (!get(length) || length >= field.width || !get_bytes(at, length)) {
            return false;
        }
        return memchr(at, '\0', length) == nullptr;
    }

    bool get_text(unsigned char* at) {
        uint32_t length = 0;
        if (!get(length)) {
            return false;
        }
        if (length == 0) {
            return true;
        }
        if (left() < length - 1 || memchr(at_, '\0', length - 1) != nullptr) {
            return false;
        }
        unsigned char* text = allocate(length, 1);
        if (text == nullptr) {
            return false;
        }
        store(at, text);
        return get_bytes(text, length - 1);
    }

    /// Every element takes at least one byte, so a count greater than the number of remaining bytes is false.
    bool get_count(uint32_t& count) { return get(count) && count <= elements_max && count <= left(); }

    bool get_array(const record_definition& type, unsigned char* at, int depth) {
        native_array array{};
        if (!get_count(array.count)) {
            return false;
        }
        if (array.count == 0) {
            return true;
        }
        array.elements = allocate(array.count, type.size);
        if (array.elements == nullptr) {
            return false;
        }
        store(at, array);
        for (uint32_t i = 0; i < array.count; ++i) {
            if (!get_fields(type, array.elements + i * type.size, depth + 1)) {
                return false;
            }
        }
        return true;
    }

    bool get_pointer(const record_definition& type, unsigned char* at, int depth) {
        if (type.linked) {
            uint32_t count = 0;
            return get_count(count) && get_list(type, at, count, depth + 1);
        }
        uint8_t present = 0;
        if (!get(present) || present > 1) {
            return false;
        }
        if (present == 0) {
            return true;
        }
        unsigned char* target = allocate(1, type.size);
        if (target == nullptr) {
            return false;
        }
        store(at, target);
        return get_fields(type, target, depth + 1);
    }

    /// Appends `count` new elements to the link at `place`.
    bool get_list(const record_definition& type, unsigned char* place, uint32_t count, int depth) {
        for (uint32_t i = 0; i < count; ++i) {
            unsigned char* element = allocate(1, type.size);
            if (element == nullptr) {
                return false;
            }
            store(place, element);
            place = element + type.link_offset();
            if (!get_fields(type, element, depth)) {
                return false;
            }
        }
        return true;
    }

    /// A record that is itself a list: the record is the first element, and the others follow through its link.
    bool get_root_list(unsigned char* base) {
        const record_definition& type = schema_.record();
        uint32_t count = 0;
        return get_count(count) && count > 0 && get_fields(type, base, 0) &&
               get_list(type, base + type.link_offset(), count - 1, 0);
    }

    bool get_optional(const record_field& field, unsigned char* at) {
        uint8_t present = 0;
        if (!get(present) || present > 1) {
            return false;
        }
        if (present == 0) {
            return true;
        }
        unsigned char* value = allocate(1, optional_size(field));
        if (value == nullptr) {
            return false;
        }
        store(at, value);
        return get_bytes(value, optional_size(field)) && (field.optional_letter != 'b' || load<uint32_t>(value) <= 1);
    }

    const record_schema& schema_;
    const unsigned char* at_;
    const unsigned char* end_;
    size_t allocated_ = 0;
    bool out_of_memory_ = false;
};

void release_fields(const record_schema& schema, const record_definition& definition, unsigned char* base);

void release_list(const record_schema& schema, const record_definition& type, unsigned char* element) {
    while (element != nullptr) {
        auto* next = load<unsigned char*>(element + type.link_offset());
        release_fields(schema, type, element);
        free(element);
        element = next;
    }
}

void release_array(const record_schema& schema, const record_definition& type, unsigned char* at) {
    const auto array = load<native_array>(at);
    for (uint32_t i = 0; array.elements != nullptr && i < array.count; ++i) {
        release_fields(schema, type, array.elements + i * type.size);
    }
    free(array.elements);
    store(at, native_array{});
}

/// Frees what a structure owns, except the elements after its link.
void release_fields(const record_schema& schema, const record_definition& definition, unsigned char* base) {
    for (const record_field& field : definition.fields) {
        unsigned char* at = base + field.offset;
        if (field.kind == record_field_kind::embedded) {
            release_fields(schema, schema.type_of(field), at);
        } else if (field.kind == record_field_kind::array) {
            release_array(schema, schema.type_of(field), at);
        } else if (field.kind == record_field_kind::pointer || field.kind == record_field_kind::text ||
                   field.kind == record_field_kind::optional_value) {
            auto* target = load<unsigned char*>(at);
            store(at, static_cast<unsigned char*>(nullptr));
            if (target == nullptr || field.kind != record_field_kind::pointer) {
                free(target);
            } else if (schema.type_of(field).linked) {
                release_list(schema, schema.type_of(field), target);
            } else {
                release_fields(schema, schema.type_of(field), target);
                free(target);
            }
        }
    }
}

}  // namespace

platform_status record_encode(const record_descriptor* descriptor, const void* record, void** encoded, size_t* size) {
    const record_schema* schema = find_record_schema(descriptor);
    if (schema == nullptr) {
        return RECORD_UNKNOWN;
    }
    try {
        encoder made(*schema);
        if (!made.encode(record, descriptor->compact_schema) || made.bytes().size() > encoded_max) {
            return RECORD_MALFORMED;
        }
        void* bytes = malloc(made.bytes().size());
        if (bytes == nullptr) {
            return ENOMEM;
        }
        memcpy(bytes, made.bytes().data(), made.bytes().size());
        *encoded = bytes;
        *size = made.bytes().size();
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    return PLATFORM_OK;
}

platform_status record_decode(const record_descriptor* descriptor, const void* encoded, size_t size, void* record,
                              size_t capacity) {
    const record_schema* schema = find_record_schema(descriptor);
    if (schema == nullptr) {
        return RECORD_UNKNOWN;
    }
    if (encoded == nullptr || schema->record().size > capacity) {
        return RECORD_MALFORMED;
    }
    const platform_status status = decoder(*schema, encoded, size).decode(record, descriptor->compact_schema);
    if (status != PLATFORM_OK) {
        record_release(descriptor, record);
        memset(record, 0, schema->record().size);
    }
    return status;
}

void record_release(const record_descriptor* descriptor, void* record) {
    const record_schema* schema = find_record_schema(descriptor);
    if (schema == nullptr) {
        return;
    }
    auto* base = static_cast<unsigned char*>(record);
    const record_definition& type = schema->record();
    release_fields(*schema, type, base);
    if (type.linked) {
        release_list(*schema, type, load<unsigned char*>(base + type.link_offset()));
        store(base + type.link_offset(), static_cast<unsigned char*>(nullptr));
    }
}
