/// The record codec. A schema is accepted or refused, whatever it contains; with an accepted one an empty record is
/// encoded and decoded; other bytes are refused or are a record that is encoded to the same bytes. No other memory is
/// touched.
///
/// Input: a full schema up to the first NUL, then the encoded fields of a record.
#include "platform/record_codec.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "common/record_schema.h"
#include "linux/datastore/record_json.h"
#include "require.h"

namespace {

struct release_memory {
    void operator()(void* memory) const { free(memory); }
};

constexpr size_t hash_size = sizeof(uint32_t);

platform_status register_descriptor(const record_descriptor& descriptor) {
    record_transaction* transaction = nullptr;
    require(record_registration_begin(&transaction) == PLATFORM_OK);
    const platform_status status = record_register(transaction, &descriptor);
    if (status != PLATFORM_OK) {
        record_registration_abort(transaction);
        return status;
    }
    return record_registration_end(transaction);
}

/// Returns an empty result if the record cannot be encoded.
std::string encode(const record_descriptor& descriptor, const void* record) {
    void* bytes = nullptr;
    size_t size = 0;
    const platform_status status = record_encode(&descriptor, record, &bytes, &size);
    const std::unique_ptr<void, release_memory> owned(bytes);
    require(status == PLATFORM_OK ? size > hash_size : status == RECORD_MALFORMED && bytes == nullptr);
    return {static_cast<const char*>(bytes), size};
}

/// Memory of exactly a record's size, so that a sanitizer detects any access beyond it.
std::unique_ptr<void, release_memory> empty_record(size_t size) {
    std::unique_ptr<void, release_memory> record(calloc(1, size));
    require(record != nullptr);
    return record;
}

void check_json(const record_descriptor& descriptor, const std::string& bytes, bool is_record) {
    control_json json;
    require((record_to_json({&descriptor, bytes}, json) == PLATFORM_OK) == is_record);
    require(json.is_null() != is_record);
}

/// Whether the bytes decode to a record.
bool check_bytes(const record_descriptor& descriptor, const record_schema& schema, const std::string& bytes) {
    const size_t size = schema.record().size;
    const auto record = empty_record(size);
    require(record_decode(&descriptor, bytes.data(), bytes.size(), record.get(), size - 1) == RECORD_MALFORMED);
    const platform_status status = record_decode(&descriptor, bytes.data(), bytes.size(), record.get(), size);
    if (status == PLATFORM_OK) {
        require(encode(descriptor, record.get()) == bytes);
        record_release(&descriptor, record.get());
        return true;
    }
    require(status == RECORD_MALFORMED || status == ENOMEM);
    require(memcmp(record.get(), empty_record(size).get(), size) == 0);
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static record_descriptor descriptor = {"record", "record.dll", nullptr, nullptr};
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t end = input.find('\0');
    const std::string full_schema = input.substr(0, end);
    const auto schema = parse_record_schema(full_schema);
    const std::string compact_schema = schema ? compact_record_schema(*schema) : "$1=D;";
    descriptor.full_schema = full_schema.c_str();
    descriptor.compact_schema = compact_schema.c_str();
    const platform_status status = register_descriptor(descriptor);
    require(status == (schema ? platform_status{PLATFORM_OK} : platform_status{RECORD_MALFORMED}));
    const std::string empty = schema ? encode(descriptor, empty_record(schema->record().size).get()) : "";
    // The nesting of structures may be too deep.
    if (!empty.empty()) {
        require(check_bytes(descriptor, *schema, empty));
        const std::string given = empty.substr(0, hash_size) + (end == std::string::npos ? "" : input.substr(end + 1));
        check_json(descriptor, given, check_bytes(descriptor, *schema, given));
    }
    return 0;
}
