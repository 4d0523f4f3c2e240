#include "linux/control/service_json.h"

#include "common/text.h"
#include "linux/access_lists/acl_json.h"
#include "linux/access_lists/acl_values.h"
#include "linux/datastore/service_values.h"
#include "linux/host/key_store_internal.h"

namespace {

constexpr char user_name_form[] =
    "expected the name of a user, of 1 to 64 letters, digits, '_', '-' and '.', the first neither '-' nor '.'";

constexpr char keys_form[] =
    "expected an array of lines of an authorized_keys file, such as [\"ssh-ed25519 AAAA... comment\"]";

std::optional<std::string> list_from_json(uint32_t family, const std::string& name, const control_json& json,
                                          std::string& refusal) {
    std::vector<acl_stored_entry> entries;
    if (!acl_name_is_valid(name)) {
        refusal = acl_name_form;
        return std::nullopt;
    }
    if (!json.is_array()) {
        refusal = "expected an array of entries, as `ssh_cfg_ctl --json acl show` prints it";
        return std::nullopt;
    }
    return acl_entries_from_json(family, json, entries, refusal) ? std::optional(acl_list_encode(entries))
                                                                 : std::nullopt;
}

bool list_to_json(uint32_t family, const std::string& bytes, control_json& json) {
    std::vector<acl_stored_entry> entries;
    return acl_list_decode(bytes, entries) == PLATFORM_OK && acl_entries_to_json(family, entries, json) == PLATFORM_OK;
}

/// Parses the lines of an array.
bool keys_from_array(const control_json& array, std::vector<authorized_key>& keys, std::string& refusal) {
    for (const control_json& element : array) {
        const auto* line = element.get_ptr<const std::string*>();
        authorized_key key;
        if (line == nullptr || !authorized_key_read(*line, key, refusal)) {
            refusal = text_format("key %zu: %s", keys.size() + 1, line == nullptr ? keys_form : refusal.c_str());
            return false;
        }
        keys.push_back(std::move(key));
    }
    return authorized_keys_are_distinct(keys, "key", {}, refusal);
}

std::optional<std::string> keys_from_json(const std::string& user, const control_json& json, std::string& refusal) {
    std::vector<authorized_key> keys;
    if (!key_user_is_valid(user)) {
        refusal = user_name_form;
        return std::nullopt;
    }
    if ((!json.is_array() || json.empty()) && !json.is_string()) {
        refusal = keys_form;
        return std::nullopt;
    }
    if (!(json.is_array() ? keys_from_array(json, keys, refusal)
                          : authorized_keys_read(json.get_ref<const std::string&>(), keys, refusal))) {
        return std::nullopt;
    }
    std::string bytes;
    const platform_status status = key_store_make_import(user, keys, bytes);
    if (status != PLATFORM_OK) {
        refusal = text_format("%s (0x%x)", platform_status_text(status), status);
        return std::nullopt;
    }
    return bytes;
}

bool keys_to_json(const std::string& bytes, control_json& json) {
    key_record record;
    if (key_record_decode(bytes, record) != PLATFORM_OK) {
        return false;
    }
    json = control_json::array();
    for (const key_with_time& key : record.keys) {
        json.push_back(authorized_key_line(key));
    }
    return true;
}

}  // namespace

std::optional<std::string> control_service_value_from_json(const std::string& path, const control_json& json,
                                                           std::string& refusal) {
    uint32_t family = 0;
    const std::string name = datastore_service_name(path);
    return acl_family_of_path(path, family) ? list_from_json(family, name, json, refusal)
                                            : keys_from_json(name, json, refusal);
}

bool control_service_value_to_json(const std::string& path, const datastore_stored& stored, control_json& json) {
    uint32_t family = 0;
    return acl_family_of_path(path, family) ? list_to_json(family, stored.bytes, json)
                                            : keys_to_json(stored.bytes, json);
}
