#include "linux/access_lists/acl_json.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "common/record_registry.h"
#include "common/text.h"
#include "linux/datastore/record_json.h"

namespace {

constexpr size_t shown_value = 60;

/// The values of an enumeration by number.
struct enumeration_row {
    const char* name;
    std::vector<const char*> values;
};

std::vector<const char*> operator_names() {
    std::vector<const char*> names;
    for (const acl_operator_row& row : acl_operators) {
        names.push_back(row.name);
    }
    return names;
}

const std::vector<enumeration_row>& enumerations() {
    static const std::vector<enumeration_row> rows = {
        {"acl_action_", {acl_action_names, acl_action_names + std::size(acl_action_names)}},
        {"acl_port_operator_", operator_names()},
        {"acl_log_type_", {"none", "log"}},
        {"acl_tcpflags_operator_", {"none", "match_all", "match_any"}},
    };
    return rows;
}

const enumeration_row* find_enumeration(const std::string& name) {
    for (const enumeration_row& row : enumerations()) {
        if (row.name == name) {
            return &row;
        }
    }
    return nullptr;
}

/// The highest number allowed in a field whose width allows numbers up to `width_max`.
uint64_t highest_number(const record_field& field, bool is_ipv6, uint64_t width_max) {
    for (const acl_condition_row& row : acl_conditions) {
        const acl_condition_fields& fields = acl_fields_of(row, is_ipv6);
        if (acl_family_has(fields) && (field.name == fields.first.name || field.name == fields.second.name)) {
            return row.record_max;
        }
    }
    return width_max;
}

std::string shown(const control_json& value) {
    return text_escape(control_json_text(value), shown_value);
}

/// Fills one native entry from a JSON object.
class entry_writer {
  public:
    entry_writer(uint32_t family, const record_schema& schema, unsigned char* base, std::string& error)
        : is_ipv6_(family == ACL_FAMILY_IPV6), schema_(schema), base_(base), error_(error) {}

    bool write(const control_json& object) {
        for (const auto& [name, value] : object.items()) {
            const record_field* field = find(name);
            if (field == nullptr) {
                error_ = '"' + text_escape(name, shown_value) + "\": unknown field";
                return false;
            }
            if (!write_field(*field, value, base_ + field->offset)) {
                return false;
            }
        }
        return true;
    }

    /// Texts that the entry refers to.
    std::vector<std::string> texts;

  private:
    const record_field* find(const std::string& name) const {
        for (const record_field& field : schema_.record().fields) {
            if (field.name == name) {
                return &field;
            }
        }
        return nullptr;
    }

    bool fail(const record_field& field, const control_json& value, const std::string& expected) {
        error_ = field.name + ": " + shown(value) + "; expected " + expected;
        return false;
    }

    template <typename number_type>
    bool write_number(const record_field& field, const control_json& value, unsigned char* at) {
        const uint64_t highest = highest_number(field, is_ipv6_, std::numeric_limits<number_type>::max());
        if (!value.is_number_unsigned() || value.get<uint64_t>() > highest) {
            return fail(field, value, "a number from 0 to " + std::to_string(highest));
        }
        const auto number = static_cast<number_type>(value.get<uint64_t>());
        memcpy(at, &number, sizeof number);
        return true;
    }

    bool write_enumeration(const record_field& field, const control_json& value, unsigned char* at) {
        const enumeration_row* row = find_enumeration(field.enumeration);
        std::string allowed;
        for (size_t i = 0; row != nullptr && i < row->values.size(); i++) {
            const auto number = static_cast<int32_t>(i);
            if (value == row->values[i] || (value.is_number_unsigned() && value.get<uint64_t>() == i)) {
                memcpy(at, &number, sizeof number);
                return true;
            }
            allowed += (i == 0 ? "" : ", ") + std::string(row->values[i]);
        }
        return fail(field, value, "one of " + allowed + ", or its number");
    }

    bool write_flag(const record_field& field, const control_json& value, unsigned char* at) {
        const bool numeric = value.is_number_unsigned() && value.get<uint64_t>() <= 1;
        if (!value.is_boolean() && !numeric) {
            return fail(field, value, "true or false");
        }
        const uint32_t flag = value.is_boolean() ? (value.get<bool>() ? 1 : 0) : value.get<uint32_t>();
        memcpy(at, &flag, sizeof flag);
        return true;
    }

    bool write_text(const record_field& field, const control_json& value, unsigned char* at) {
        const auto* text = value.get_ptr<const std::string*>();
        if (text == nullptr || (!text->empty() && !acl_name_is_valid(*text))) {
            return fail(field, value, "a name of at most 64 letters, digits, '_', '-' and '.', or an empty string");
        }
        if (!text->empty()) {
            texts.reserve(8);
            texts.push_back(*text);
            const char* pointer = texts.back().c_str();
            memcpy(at, &pointer, sizeof pointer);
        }
        return true;
    }

    bool write_address(const record_field& field, const control_json& value, int family, unsigned char* at) {
        const auto* text = value.get_ptr<const std::string*>();
        if (text == nullptr || inet_pton(family, text->c_str(), at) != 1) {
            return fail(field, value, family == AF_INET ? "an IPv4 address" : "an IPv6 address");
        }
        return true;
    }

    bool write_field(const record_field& field, const control_json& value, unsigned char* at) {
        switch (field.kind) {
            case record_field_kind::number32:
                return write_number<uint32_t>(field, value, at);
            case record_field_kind::number16:
                return write_number<uint16_t>(field, value, at);
            case record_field_kind::number8:
                return write_number<uint8_t>(field, value, at);
            case record_field_kind::ipv4_address:
                return write_address(field, value, AF_INET, at);
            case record_field_kind::bytes:
                return write_address(field, value, AF_INET6, at);
            case record_field_kind::enumeration:
                return write_enumeration(field, value, at);
            case record_field_kind::boolean:
                return write_flag(field, value, at);
            case record_field_kind::text:
                return write_text(field, value, at);
            default:
                return fail(field, value, "no value: the field cannot be set");
        }
    }

    bool is_ipv6_;
    const record_schema& schema_;
    unsigned char* base_;
    std::string& error_;
};

bool is_range(const control_json& operation) {
    return operation == "range" || operation == static_cast<int>(ACL_RANGE);
}

bool check_range(const acl_condition_fields& fields, const control_json& object, std::string& error) {
    const auto operation = object.find(fields.operation.name);
    const auto first = object.find(fields.first.name);
    const auto second = object.find(fields.second.name);
    if (operation == object.end() || !is_range(*operation) || first == object.end()) {
        return true;
    }
    if (second == object.end() || first->get<uint32_t>() > second->get<uint32_t>()) {
        error = std::string(fields.first.name) + ", " + fields.second.name +
                ": range is reversed; expected the lower number first";
        return false;
    }
    return true;
}

bool check_ranges(uint32_t family, const control_json& object, std::string& error) {
    return std::ranges::all_of(acl_conditions, [&](const acl_condition_row& row) {
        const acl_condition_fields& fields = acl_fields_of(row, family == ACL_FAMILY_IPV6);
        return !acl_family_has(fields) || check_range(fields, object, error);
    });
}

constexpr const char* action_fields[] = {"Grant", "IsPacketAllowOrDeny"};

}  // namespace

bool acl_entry_from_json(uint32_t family, const control_json& json, acl_stored_entry& entry, std::string& error) {
    const char* action = action_fields[family == ACL_FAMILY_IPV6 ? 1 : 0];
    if (!json.is_object() || !json.contains(action)) {
        error = std::string("expected an object with at least the field ") + action;
        return false;
    }
    const record_descriptor* descriptor = acl_entry_descriptor(family);
    const record_schema* schema = find_record_schema(descriptor);
    if (schema == nullptr) {
        error = "the ACL service is not ready";
        return false;
    }
    std::vector<unsigned char> native(schema->record().size);
    entry_writer writer(family, *schema, native.data(), error);
    if (!writer.write(json) || !check_ranges(family, json, error)) {
        return false;
    }
    void* encoded = nullptr;
    size_t size = 0;
    const platform_status status = record_encode(descriptor, native.data(), &encoded, &size);
    if (status != PLATFORM_OK) {
        error = platform_status_text(status);
        return false;
    }
    const std::unique_ptr<void, decltype(&free)> owned(encoded, free);
    entry = {json.value("SequenceNumber", 0U), std::string(static_cast<const char*>(encoded), size)};
    return true;
}

platform_status acl_entry_to_json(uint32_t family, const acl_stored_entry& entry, control_json& json) {
    const record_descriptor* descriptor = acl_entry_descriptor(family);
    const platform_status status = record_to_json({descriptor, entry.record}, json);
    if (status != PLATFORM_OK) {
        return status;
    }
    for (const record_field& field : find_record_schema(descriptor)->record().fields) {
        control_json& value = json[field.name];
        const enumeration_row* row = find_enumeration(field.enumeration);
        if (field.kind == record_field_kind::bytes) {
            char text[INET6_ADDRSTRLEN] = "";
            inet_ntop(AF_INET6, value.get<std::vector<uint8_t>>().data(), text, sizeof text);
            value = text;
        } else if (row != nullptr && value >= 0 && value < row->values.size()) {
            value = row->values[value.get<size_t>()];
        }
    }
    return PLATFORM_OK;
}

bool acl_entries_from_json(uint32_t family, const control_json& array, std::vector<acl_stored_entry>& entries,
                           std::string& error) {
    uint32_t last = 0;
    for (size_t i = 0; i < array.size(); i++) {
        control_json object = array[i];
        // The number is stored in the entry's record, too.
        if (object.is_object() && !object.contains("SequenceNumber")) {
            object["SequenceNumber"] = last + 10;
        }
        acl_stored_entry entry = {};
        bool is_read = acl_entry_from_json(family, object, entry, error);
        if (is_read && entry.sequence <= last) {
            error = "SequenceNumber: " + std::to_string(entry.sequence) +
                    "; expected a number greater than the previous entry's, " + std::to_string(last);
            is_read = false;
        }
        if (!is_read) {
            error.insert(0, "entry " + std::to_string(i + 1) + ": ");
            return false;
        }
        last = entry.sequence;
        entries.push_back(std::move(entry));
    }
    return true;
}

platform_status acl_entries_to_json(uint32_t family, const std::vector<acl_stored_entry>& entries,
                                    control_json& array) {
    control_json objects = control_json::array();
    for (const acl_stored_entry& entry : entries) {
        control_json object;
        if (const platform_status status = acl_entry_to_json(family, entry, object); status != PLATFORM_OK) {
            return status;
        }
        objects.push_back(std::move(object));
    }
    array = std::move(objects);
    return PLATFORM_OK;
}
