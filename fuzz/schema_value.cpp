/// The schema. Any accepted value can be read back and is stored as the same bytes again, is UTF-8 and contains no
/// control characters except a banner's newlines and tabs. Every refusal has a one-line text. Stored bytes do no harm,
/// however malformed.
///
/// Input: a path up to the first newline, then one byte for the form of the rest: 'b' stored bytes (the next byte is
/// their kind), '[' an array of values, otherwise a value. A value is 'i' and eight bytes, 'd' and eight bytes, 't' or
/// 'f', 'n' for an absent field, or 's', two bytes of length and a text.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "linux/datastore/schema.h"
#include "linux/datastore/schema_form.h"
#include "platform/datastore_backend.h"
#include "require.h"

namespace {

struct input {
    const uint8_t* next;
    size_t left;

    uint8_t byte() {
        if (left == 0) {
            return 0;
        }
        left--;
        return *next++;
    }
    std::string bytes(size_t size) {
        size = std::min(size, left);
        std::string taken(reinterpret_cast<const char*>(next), size);
        next += size;
        left -= size;
        return taken;
    }
    template <typename T>
    T number() {
        T value = {};
        const std::string taken = bytes(sizeof value);
        memcpy(&value, taken.data(), taken.size());
        return value;
    }
};

std::optional<datastore_scalar> take_scalar(input& in) {
    switch (in.byte()) {
        case 'i':
            return in.number<int64_t>();
        case 'd':
            return in.number<double>();
        case 't':
            return true;
        case 'f':
            return false;
        case 's':
            return in.bytes(in.number<uint16_t>());
        default:
            return std::nullopt;
    }
}

datastore_value take_value(input& in) {
    if (in.left > 0 && *in.next == '[') {
        in.byte();
        datastore_fields fields;
        while (in.left > 0) {
            fields.push_back(take_scalar(in));
        }
        return fields;
    }
    const std::optional<datastore_scalar> scalar = take_scalar(in);
    if (!scalar) {
        return false;
    }
    return std::visit([](const auto& plain) { return datastore_value(plain); }, *scalar);
}

void require_one_clean_line(const std::string& text) {
    require(!text.empty() && schema_has_charset(text, schema_charset::printable));
}

void check_taken(const schema_row& row, const std::string& path, const datastore_stored& stored) {
    datastore_value loaded;
    datastore_stored again;
    std::string refusal;
    require(schema_load(row, stored, loaded) == PLATFORM_OK);
    require(schema_store(row, path, loaded, again, refusal) == PLATFORM_OK);
    require(again == stored);
    if (const std::string* text = std::get_if<std::string>(&loaded)) {
        const bool has_lines = row.form.charset == schema_charset::delimited;
        require(schema_has_charset(*text, has_lines ? row.form.charset : schema_charset::printable));
        require(!has_lines || schema_is_delimited(*text));
    }
    require_one_clean_line(schema_display(loaded));
}

void check_value(const schema_row& row, const std::string& path, input& in) {
    datastore_stored stored;
    std::string refusal;
    const datastore_value value = take_value(in);
    if (schema_store(row, path, value, stored, refusal) == PLATFORM_OK) {
        check_taken(row, path, stored);
    } else {
        require_one_clean_line(refusal);
    }
}

void check_stored(const schema_row& row, input& in) {
    datastore_value loaded;
    const uint32_t kind = in.byte();
    if (schema_load(row, {kind, in.bytes(in.left)}, loaded) == PLATFORM_OK) {
        require_one_clean_line(schema_display(loaded));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint8_t* newline = std::find(data, data + size, '\n');
    const std::string path(data, newline);
    std::string refusal;
    const schema_row* row = schema_find(path, &refusal);
    if (row == nullptr) {
        require_one_clean_line(refusal);
        return 0;
    }
    input in = {newline, static_cast<size_t>(data + size - newline)};
    in.byte();
    if (in.left > 0 && *in.next == 'b') {
        in.byte();
        check_stored(*row, in);
    } else {
        check_value(*row, path, in);
    }
    return 0;
}
