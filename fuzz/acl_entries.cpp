/// Access-list entries. An entry of any bytes becomes one rule or none, and its text cannot be anything but a rule. An
/// accepted line or JSON object is displayed in a form that means the same entry. Stored bytes do no harm, however
/// malformed.
///
/// Input: '4' or '6' for the family; then a byte for the form of the rest: 'n' the bytes of a native entry, 'l' a line,
/// 'j' JSON, otherwise a stored entry after its type header.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "acl/rule_conversion.h"
#include "linux/access_lists/acl_json.h"
#include "linux/access_lists/acl_line.h"
#include "linux/access_lists/acl_rule.h"
#include "require.h"

namespace {

constexpr size_t mark_size = sizeof(uint32_t);
constexpr uint32_t first_sequence = 10;  ///< of a line without a sequence number

/// No part of a rule needs quoting, ends a statement or opens a block; sets appear only inside a match.
void require_one_rule(const std::string& rule) {
    constexpr const char* allowed = "abcdefghijklmnopqrstuvwxyz0123456789 \t.:/&|=!<>(){},-_";
    require(!rule.empty() && rule.back() == '\n');
    require(rule.find_first_not_of(allowed) == rule.size() - 1);
}

std::string written(void (*convert)(const void* entry, FILE* file, uint32_t type), const void* entry, uint32_t type) {
    char* text = nullptr;
    size_t size = 0;
    FILE* file = open_memstream(&text, &size);
    require(file != nullptr);
    convert(entry, file, type);
    fclose(file);
    std::string rule(text, size);
    free(text);
    return rule;
}

void convert_ipv4(const void* entry, FILE* file, uint32_t type) {
    ssh_convert_ipv4_acl_rule(*static_cast<const acl_ipv4_entry*>(entry), file, type);
}

void convert_ipv6(const void* entry, FILE* file, uint32_t type) {
    ssh_convert_ipv6_acl_rule(*static_cast<const acl_ipv6_entry*>(entry), file, type);
}

struct family_row {
    uint32_t family;
    void (*convert)(const void* entry, FILE* file, uint32_t type);
    uint32_t ssh_type;
    size_t size;
    size_t counter_at;  ///< the only pointer
};

constexpr family_row families[] = {
    {ACL_FAMILY_IPV4, convert_ipv4, 0, sizeof(acl_ipv4_entry), offsetof(acl_ipv4_entry, CounterName)},
    {ACL_FAMILY_IPV6, convert_ipv6, 2, sizeof(acl_ipv6_entry), offsetof(acl_ipv6_entry, CounterName)},
};

void check_native(const family_row& row, const void* entry) {
    for (const uint32_t type : {row.ssh_type, row.ssh_type + 1}) {
        const std::string rule = written(row.convert, entry, type);
        if (!rule.empty()) {
            require_one_rule(rule);
        }
    }
}

void check_native_bytes(const family_row& row, const std::string& bytes) {
    alignas(void*) unsigned char entry[ACL_ENTRY_AREA] = {};
    memcpy(entry, bytes.data(), std::min(bytes.size(), row.size));
    // The counter's name is irrelevant.
    char counter[] = "x; drop\n";
    char* name = entry[row.counter_at] % 2 == 0 ? nullptr : counter;
    memcpy(entry + row.counter_at, &name, sizeof name);
    check_native(row, entry);
}

bool is_same(const acl_stored_entry& one, const acl_stored_entry& other) {
    return one.sequence == other.sequence && one.record == other.record;
}

/// The displayed line of an accepted entry parses to the same entry.
void check_line_of(const family_row& row, const acl_stored_entry& entry) {
    acl_rule rule;
    require(acl_decode_rule(row.family, entry, rule) == PLATFORM_OK);
    const std::string line = acl_format_line(row.family, rule);
    require(line.find('\n') == std::string::npos);
}

void check_json_of(const family_row& row, const acl_stored_entry& entry) {
    control_json json;
    acl_stored_entry again;
    std::string error;
    require(acl_entry_to_json(row.family, entry, json) == PLATFORM_OK);
    require(acl_entry_from_json(row.family, json, again, error) && is_same(again, entry));
}

void check_stored(const family_row& row, const acl_stored_entry& entry) {
    alignas(void*) unsigned char native[ACL_ENTRY_AREA] = {};
    acl_rule rule;
    const record_descriptor* descriptor = acl_entry_descriptor(row.family);
    const platform_status status =
        record_decode(descriptor, entry.record.data(), entry.record.size(), native, sizeof native);
    require((acl_decode_rule(row.family, entry, rule) == PLATFORM_OK) == (status == PLATFORM_OK));
    if (status == PLATFORM_OK) {
        check_native(row, native);
        record_release(descriptor, native);
        acl_format_line(row.family, rule);
        control_json json;
        require(acl_entry_to_json(row.family, entry, json) == PLATFORM_OK);
    }
}

void check_line(const family_row& row, const std::string& line) {
    acl_rule rule;
    acl_rule again;
    acl_stored_entry entry;
    acl_stored_entry entry_again;
    std::string error;
    if (!acl_parse_line(row.family, line, rule, error)) {
        return;
    }
    require(error.empty());
    if (rule.sequence == 0) {
        rule.sequence = first_sequence;
    }
    const std::string shown = acl_format_line(row.family, rule);
    require(acl_parse_line(row.family, shown, again, error) && acl_format_line(row.family, again) == shown);
    require(acl_encode_rule(row.family, rule, entry) == PLATFORM_OK);
    require(acl_encode_rule(row.family, again, entry_again) == PLATFORM_OK && is_same(entry, entry_again));
    check_json_of(row, entry);
    check_stored(row, entry);
}

void check_json(const family_row& row, const std::string& text) {
    std::string error;
    const std::optional<control_json> json = control_json_parse(text, error);
    acl_stored_entry entry;
    if (!json.has_value()) {
        require(!error.empty());
        return;
    }
    if (!acl_entry_from_json(row.family, *json, entry, error)) {
        require(!error.empty());
        return;
    }
    check_line_of(row, entry);
    check_json_of(row, entry);
    check_stored(row, entry);
}

/// The bytes that every stored entry of the family starts with.
std::string mark_of(const family_row& row) {
    acl_stored_entry entry;
    require(acl_encode_rule(row.family, {}, entry) == PLATFORM_OK);
    return entry.record.substr(0, mark_size);
}

bool start_service() {
    require(acl_service_start() == PLATFORM_OK);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool is_started = start_service();
    require(is_started);
    if (size < 2) {
        return 0;
    }
    const family_row& row = families[data[0] == '6' ? 1 : 0];
    const std::string rest(reinterpret_cast<const char*>(data) + 2, size - 2);
    switch (data[1]) {
        case 'n':
            check_native_bytes(row, rest);
            break;
        case 'l':
            check_line(row, rest);
            break;
        case 'j':
            check_json(row, rest);
            break;
        default:
            check_stored(row, {0, mark_of(row) + rest});
    }
    return 0;
}
