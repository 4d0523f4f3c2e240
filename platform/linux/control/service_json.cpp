#include "linux/control/service_json.h"

#include "common/text.h"
#include "linux/access_lists/acl_json.h"
#include "linux/access_lists/acl_values.h"
#include "linux/datastore/service_values.h"
#include "linux/host/key_store_internal.h"
#include "user_keys/key_der.h"
#include "user_keys/key_text.h"

namespace {

constexpr char user_name_form[] =
    "expected the name of a user, of 1 to 64 letters, digits, '_', '-' and '.', the first neither '-' nor '.'";

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

std::optional<std::string> key_from_json(const std::string& user, const control_json& json, std::string& refusal) {
    std::string bytes;
    if (!key_user_is_valid(user)) {
        refusal = user_name_form;
        return std::nullopt;
    }
    const auto* text = json.get_ptr<const std::string*>();
    const platform_status status =
        text == nullptr ? platform_status{KEY_OTHER_TYPE} : key_store_make_import(user, *text, bytes);
    if (status != PLATFORM_OK) {
        refusal = control_key_refusal(status);
        return std::nullopt;
    }
    return bytes;
}

bool key_to_json(const std::string& bytes, control_json& json) {
    key_record record;
    rsa_public_key key;
    if (key_record_decode(bytes, record) != PLATFORM_OK || key_der_read(record.der, key) != PLATFORM_OK) {
        return false;
    }
    json = key_text_write(key);
    return true;
}

}  // namespace

std::optional<std::string> control_service_value_from_json(const std::string& path, const control_json& json,
                                                           std::string& refusal) {
    uint32_t family = 0;
    const std::string name = datastore_service_name(path);
    return acl_family_of_path(path, family) ? list_from_json(family, name, json, refusal)
                                            : key_from_json(name, json, refusal);
}

bool control_service_value_to_json(const std::string& path, const datastore_stored& stored, control_json& json) {
    uint32_t family = 0;
    return acl_family_of_path(path, family) ? list_to_json(family, stored.bytes, json)
                                            : key_to_json(stored.bytes, json);
}

std::string control_key_refusal(platform_status status) {
    return text_format(
        "%s; expected a line such as \"ssh-rsa AAAA... comment\" with an RSA key of at least 1024 bits, as ssh-keygen "
        "writes it",
        platform_status_text(status));
}
