#include "linux/datastore/record_json.h"

#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "common/record_registry.h"

namespace {

template <typename value_type>
value_type load(const unsigned char* at) {
    value_type value;
    memcpy(&value, at, sizeof(value));
    return value;
}

class record_reader {
  public:
    explicit record_reader(const record_schema& schema) : schema_(schema) {}

    control_json object(const record_definition& definition, const unsigned char* base) const {
        control_json::object_t members;
        for (const record_field& field : definition.fields) {
            if (field.kind != record_field_kind::link) {
                members.emplace_back(field.name, value(field, base + field.offset));
            }
        }
        return members;
    }

    /// A list, given its first element, which may be null.
    control_json list(const record_definition& type, const unsigned char* element) const {
        control_json elements = control_json::array();
        for (; element != nullptr; element = load<const unsigned char*>(element + type.link_offset())) {
            elements.push_back(object(type, element));
        }
        return elements;
    }

  private:
    control_json value(const record_field& field, const unsigned char* at) const {
        switch (field.kind) {
            case record_field_kind::number32:
                return load<uint32_t>(at);
            case record_field_kind::number16:
                return load<uint16_t>(at);
            case record_field_kind::number8:
                return *at;
            case record_field_kind::ipv4_address:
                return address(at);
            case record_field_kind::bytes:
                return std::vector<uint8_t>(at, at + field.width);
            case record_field_kind::text:
                return text(load<const char*>(at));
            case record_field_kind::enumeration:
                return load<int32_t>(at);
            case record_field_kind::boolean:
                return load<uint32_t>(at) != 0;
            case record_field_kind::fixed_text:
                return text(reinterpret_cast<const char*>(at));
            case record_field_kind::array:
                return array(schema_.type_of(field), at);
            case record_field_kind::pointer:
                return target(schema_.type_of(field), load<const unsigned char*>(at));
            case record_field_kind::optional_value:
                return optional(field, load<const unsigned char*>(at));
            case record_field_kind::embedded:
                return object(schema_.type_of(field), at);
            case record_field_kind::link:
                break;
        }
        return {};
    }

    static control_json text(const char* text) { return text != nullptr ? text : ""; }

    static control_json address(const unsigned char* at) {
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, at, text, sizeof(text));
        return text;
    }

    control_json array(const record_definition& type, const unsigned char* at) const {
        const auto count = load<uint32_t>(at);
        const auto* elements = load<const unsigned char*>(at + sizeof(void*));
        control_json all = control_json::array();
        for (uint32_t i = 0; i < count; i++) {
            all.push_back(object(type, elements + i * type.size));
        }
        return all;
    }

    control_json target(const record_definition& type, const unsigned char* at) const {
        if (type.linked) {
            return list(type, at);
        }
        return at != nullptr ? object(type, at) : control_json();
    }

    static control_json optional(const record_field& field, const unsigned char* at) {
        if (at == nullptr) {
            return {};
        }
        switch (field.optional_letter) {
            case 'b':
                return load<uint32_t>(at) != 0;
            case 'I':
                return load<uint16_t>(at);
            default:
                return load<int32_t>(at);
        }
    }

    const record_schema& schema_;
};

}  // namespace

platform_status record_to_json(const datastore_record& record, control_json& json) {
    const record_schema* schema = find_record_schema(record.descriptor);
    if (schema == nullptr) {
        return RECORD_UNKNOWN;
    }
    std::vector<unsigned char> native(schema->record().size);
    const platform_status status =
        record_decode(record.descriptor, record.bytes.data(), record.bytes.size(), native.data(), native.size());
    if (status != PLATFORM_OK) {
        return status;
    }
    const record_reader reader(*schema);
    try {
        json = schema->record().linked ? reader.list(schema->record(), native.data())
                                       : reader.object(schema->record(), native.data());
    } catch (...) {
        record_release(record.descriptor, native.data());
        throw;
    }
    record_release(record.descriptor, native.data());
    return PLATFORM_OK;
}
