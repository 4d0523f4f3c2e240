#include "appliers/name_tuple.h"

#include "appliers/trace_points.h"
#include "core/log.h"

namespace {

constexpr size_t conversion_size = 2;

// The format for fewer fields is the tail of this one.
constexpr char name_format[] = "%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s";
constexpr char flag_format[] = "%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d";
constexpr uint32_t most_fields = TUPLE_FIELDS_MAX;
static_assert(sizeof name_format == conversion_size * most_fields + 1 && sizeof flag_format == sizeof name_format);

const char* format_of(const char* format, uint32_t count) {
    return format + conversion_size * (most_fields - count);
}

platform_status report_malformed(platform_status status, const char* tag) {
    if (status != PLATFORM_OK) {
        log_location(ERR_DATASTORE_UNPACK, status, tag);
        trace_error(appliers_trace_unpack, {tag, status});
    }
    return status;
}

}  // namespace

platform_status unpack_names(const datastore_change& change, uint32_t most, const char* tag, name_tuple* names) {
    tuple_field fields[most_fields] = {};
    uint32_t mask = 0;
    const platform_status status =
        tuple_decode_mask(change.value, change.value_size, format_of(name_format, most), fields, most, &mask);
    if (status != PLATFORM_OK) {
        return report_malformed(status, tag);
    }
    names->count = 0;
    for (; mask != 0 && names->count < most; mask >>= 1) {
        const char* name = fields[names->count].text;
        names->names[names->count++] = name != nullptr ? name : "";
    }
    return PLATFORM_OK;
}

platform_status unpack_flags(const datastore_change& change, uint32_t count, const char* tag, int32_t* flags) {
    tuple_field fields[most_fields] = {};
    const platform_status status =
        tuple_decode(change.value, change.value_size, format_of(flag_format, count), fields, count);
    for (uint32_t i = 0; status == PLATFORM_OK && i < count; i++) {
        flags[i] = fields[i].number;
    }
    return report_malformed(status, tag);
}
