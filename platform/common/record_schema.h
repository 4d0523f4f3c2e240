/// Parsed record schemas: the fields of a record and their offsets in its native structure.
///
/// The notation is described in platform/record_codec.h.
#ifndef PLATFORM_COMMON_RECORD_SCHEMA_H
#define PLATFORM_COMMON_RECORD_SCHEMA_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class record_field_kind {
    number32,        ///< D: uint32_t
    number16,        ///< I: uint16_t
    number8,         ///< C: uint8_t
    ipv4_address,    ///< A: 4 bytes in network byte order
    bytes,           ///< WxC: W bytes
    text,            ///< s: char*, owned, null if absent
    enumeration,     ///< e: int32_t
    boolean,         ///< b: uint32_t, 0 or 1
    fixed_text,      ///< Wx%S: char[W], NUL-terminated
    array,           ///< a($N): uint32_t count, then pointer
    pointer,         ///< p($N): to one structure, or to the first of a list; null if absent
    link,            ///< Pp($N): to the next element of the list
    optional_value,  ///< p(b), p(e), p(I): to a value; null if absent
    embedded,        ///< $N: the structure itself
};

struct record_field {
    record_field_kind kind;
    std::string name;
    std::string enumeration;   ///< name of its enumeration; empty if it has none
    bool node_id = false;      ///< D%n
    uint32_t width = 0;        ///< bytes of fixed_text and bytes
    char optional_letter = 0;  ///< b, e or I of an optional_value
    uint32_t type_number = 0;  ///< N of array, pointer, link and embedded
    size_t type_index = 0;     ///< index of its definition
    size_t offset = 0;         ///< in the native structure
};

struct record_definition {
    uint32_t number = 0;
    bool linked = false;  ///< an element of a singly linked list; its last field is the link
    std::vector<record_field> fields;
    size_t size = 0;  ///< bytes of the native structure
    size_t alignment = 1;

    /// Offset of the link of a linked definition.
    size_t link_offset() const { return fields.back().offset; }
};

struct record_schema {
    std::vector<record_definition> definitions;  ///< the first is the record's own

    const record_definition& record() const { return definitions.front(); }
    const record_definition& type_of(const record_field& field) const { return definitions[field.type_index]; }
};

/// Parses a full schema and lays out its structures. Returns nothing if the schema is malformed: unknown letters,
/// undefined or duplicate types, a structure that embeds itself, an empty structure or one larger than 1 MiB, a link
/// without its L.
std::optional<record_schema> parse_record_schema(std::string_view full_schema);

/// The compact form of a schema: without names and enumeration names, and with a '.' after each embedded structure.
std::string compact_record_schema(const record_schema& schema);

#endif
