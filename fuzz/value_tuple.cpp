/// Value tuples: any accepted value is packed to the same bytes again.
///
/// Input: one byte for the number of fields (modulo 33), for each field a byte for its format (modulo 3), and the
/// packed value.
#include "platform/value_tuple.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "require.h"

namespace {

void check_accepted(const uint8_t* packed, size_t size, const std::string& format, const tuple_field* fields,
                    uint32_t count, uint32_t mask) {
    std::string again(size, '\0');
    size_t again_size = 0;
    require(tuple_encode(again.data(), again.size(), format.c_str(), fields, count, mask, &again_size) == PLATFORM_OK);
    require(again_size == size && memcmp(again.data(), packed, size) == 0);
    for (uint32_t i = 0; i < count; i++) {
        const bool is_text = (mask >> i & 1) != 0 && format[2 * i + 1] != 'd';
        require((fields[i].text != nullptr) == is_text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size - 1 < data[0] % 33U) {
        return 0;
    }
    const uint32_t count = data[0] % 33U;
    std::string format;
    for (uint32_t i = 0; i < count; i++) {
        format += '%';
        format += "dsS"[data[1 + i] % 3];
    }
    const uint8_t* packed = data + 1 + count;
    const size_t packed_size = size - 1 - count;
    tuple_field fields[TUPLE_FIELDS_MAX] = {};
    uint32_t mask = 0;
    if (tuple_decode_mask(packed, packed_size, format.c_str(), fields, count, &mask) == PLATFORM_OK) {
        check_accepted(packed, packed_size, format, fields, count, mask);
    }
    return 0;
}
