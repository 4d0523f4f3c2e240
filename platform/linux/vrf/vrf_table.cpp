#include "platform/vrf_table.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <optional>
#include <string>

#include "common/number.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/reporting/log_message_internal.h"
#include "linux/vrf/vrf_table_internal.h"

namespace {

constexpr char key_prefix[] = "vrf/";

bool is_name_character(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.';
}

platform_status parse_number(const std::string& key, const std::string& bytes, uint32_t& number) {
    const std::optional<uint32_t> parsed = number_parse<uint32_t>(bytes, VRF_ID_DEFAULT + 1, VRF_ID_MAX);
    if (!parsed) {
        platform_log(LOG_ERR, "The number stored for %s is damaged", key.c_str());
        return EBADMSG;
    }
    number = *parsed;
    return PLATFORM_OK;
}

/// All numbers except the default VRF's, which is not stored.
platform_status read_entries(std::vector<vrf_table_entry>& entries) {
    std::string key;
    std::string bytes;
    for (;;) {
        const std::string after = key;
        platform_status status = datastore_private_next(key_prefix, after, key, bytes);
        if (status == DATASTORE_NO_SUCH_ITEM) {
            return PLATFORM_OK;
        }
        uint32_t number = 0;
        if (status == PLATFORM_OK) {
            status = parse_number(key, bytes, number);
        }
        if (status != PLATFORM_OK) {
            return status;
        }
        entries.push_back({key.substr(sizeof key_prefix - 1), number});
    }
}

/// Entries are never removed, so one more than the highest number has never been used.
platform_status give_number(const std::string& key, uint32_t& number) {
    std::vector<vrf_table_entry> entries;
    const platform_status status = read_entries(entries);
    if (status != PLATFORM_OK) {
        return status;
    }
    uint32_t highest = VRF_ID_DEFAULT;
    for (const vrf_table_entry& entry : entries) {
        highest = std::max(highest, entry.id);
    }
    if (highest == VRF_ID_MAX) {
        return ENOSPC;
    }
    number = highest + 1;
    return datastore_private_put(key, std::to_string(number));
}

platform_status lookup_stored(const std::string& key, uint32_t& number) {
    std::string bytes;
    const platform_status status = datastore_private_get(key, bytes);
    if (status == DATASTORE_NO_SUCH_ITEM) {
        return give_number(key, number);
    }
    return status == PLATFORM_OK ? parse_number(key, bytes, number) : status;
}

}  // namespace

bool vrf_name_is_valid(std::string_view name) {
    return !name.empty() && name.size() <= VRF_NAME_MAX && name.front() != '-' && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), is_name_character);
}

platform_status vrf_table_lookup(const char* vrf_name, uint32_t* vrf_id) {
    if (vrf_name == nullptr || vrf_id == nullptr || !vrf_name_is_valid(vrf_name)) {
        return EINVAL;
    }
    if (std::string_view(vrf_name) == vrf_default_name) {
        *vrf_id = VRF_ID_DEFAULT;
        return PLATFORM_OK;
    }
    try {
        uint32_t number = 0;
        const platform_status status = lookup_stored(std::string(key_prefix) + vrf_name, number);
        if (status == PLATFORM_OK) {
            *vrf_id = number;
        }
        return status;
    } catch (const std::exception&) {
        return ENOMEM;
    }
}

platform_status vrf_table_list(std::vector<vrf_table_entry>& entries) {
    std::vector<vrf_table_entry> all = {{vrf_default_name, VRF_ID_DEFAULT}};
    const platform_status status = read_entries(all);
    if (status == PLATFORM_OK) {
        std::sort(all.begin(), all.end(),
                  [](const vrf_table_entry& a, const vrf_table_entry& b) { return a.id < b.id; });
        entries = std::move(all);
    }
    return status;
}
