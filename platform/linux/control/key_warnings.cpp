#include "linux/control/key_warnings.h"

#include <algorithm>
#include <map>

#include "common/text.h"
#include "linux/datastore/authority.h"
#include "linux/datastore/service_values.h"
#include "linux/datastore/state.h"
#include "linux/host/key_store_internal.h"

namespace {

constexpr char fips_item[] = "/cfg/gl/crypto/fipsmode/value";
constexpr size_t shown_users_max = 10;

using keys_of_users = std::map<std::string, key_record>;

/// Returns the keys as they are after the commit, which a check has not made.
keys_of_users keys_after(const std::vector<datastore_item_outcome>& items) {
    std::vector<key_store_entry> entries;
    keys_of_users users;
    if (key_store_list(entries) != PLATFORM_OK) {
        return users;
    }
    for (key_store_entry& entry : entries) {
        users[entry.user] = std::move(entry.record);
    }
    for (const datastore_item_outcome& item : items) {
        if (item.path.starts_with(datastore_imported_keys)) {
            const std::string user = datastore_service_name(item.path);
            if (!item.value.has_value() || key_record_decode(item.value->bytes, users[user]) != PLATFORM_OK) {
                users.erase(user);
            }
        }
    }
    return users;
}

bool has_key(const std::vector<key_with_time>& keys, const public_key& key) {
    return std::any_of(keys.begin(), keys.end(), [&key](const key_with_time& other) { return other.key == key; });
}

void warn_of_key(const std::string& user, const public_key& key, bool is_fips_mode, const keys_of_users& users,
                 std::vector<std::string>& warnings) {
    const std::string shown = text_format("user %s: the key %s", user.c_str(), public_key_fingerprint(key).c_str());
    for (const auto& [other, record] : users) {
        if (other != user && has_key(record.keys, key)) {
            warnings.push_back(text_format("%s is also a key of user %s", shown.c_str(), other.c_str()));
        }
    }
    if (is_fips_mode && !public_key_is_approved_for_fips(key.type)) {
        warnings.push_back(shown + " is not accepted in FIPS mode, because it is of type " + key.type);
    }
}

/// Names the users who have keys that do not count in FIPS mode.
void warn_of_fips_mode(const keys_of_users& users, std::vector<std::string>& warnings) {
    std::string names;
    size_t count = 0;
    for (const auto& [user, record] : users) {
        const bool loses_any = std::any_of(record.keys.begin(), record.keys.end(), [](const key_with_time& key) {
            return !public_key_is_approved_for_fips(key.key.type);
        });
        if (loses_any && count++ < shown_users_max) {
            names += (names.empty() ? "" : ", ") + user;
        }
    }
    if (count > 0) {
        warnings.push_back(
            text_format("in FIPS mode the servers do not accept all keys of %s%s; `key list` shows which",
                        names.c_str(), count > shown_users_max ? " and others" : ""));
    }
}

}  // namespace

bool control_is_fips_mode() {
    datastore_stored item;
    return datastore_stored_get(fips_item, item) == PLATFORM_OK;
}

std::vector<std::string> control_key_warnings(const std::vector<datastore_item_outcome>& items) {
    std::vector<std::string> warnings;
    bool is_fips_mode = control_is_fips_mode();
    bool turns_fips_on = false;
    bool sets_keys = false;
    for (const datastore_item_outcome& item : items) {
        if (item.path == fips_item) {
            is_fips_mode = item.value.has_value();
            turns_fips_on = item.value.has_value() && !item.previous.has_value();
        }
        sets_keys |= item.path.starts_with(datastore_imported_keys) && item.value.has_value();
    }
    if (!turns_fips_on && !sets_keys) {
        return warnings;
    }
    const keys_of_users users = keys_after(items);
    for (const datastore_item_outcome& item : items) {
        key_record before;
        key_record after;
        if (!item.path.starts_with(datastore_imported_keys) || !item.value.has_value() ||
            key_record_decode(item.value->bytes, after) != PLATFORM_OK) {
            continue;
        }
        if (item.previous.has_value()) {
            key_record_decode(item.previous->bytes, before);
        }
        for (const key_with_time& key : after.keys) {
            if (!has_key(before.keys, key.key)) {
                warn_of_key(datastore_service_name(item.path), key.key, is_fips_mode && !turns_fips_on, users,
                            warnings);
            }
        }
    }
    if (turns_fips_on) {
        warn_of_fips_mode(users, warnings);
    }
    return warnings;
}

std::string control_key_hint(const std::vector<datastore_change_request>& changes, const std::string& refused_path) {
    constexpr std::string_view last_component = "/keystr";
    if (!refused_path.starts_with(datastore_user_items) || !refused_path.ends_with(last_component)) {
        return {};
    }
    const auto change =
        std::find_if(changes.begin(), changes.end(), [&refused_path](const datastore_change_request& one) {
            return one.path == refused_path && one.value.has_value();
        });
    const auto* text = change == changes.end() ? nullptr : std::get_if<std::string>(&*change->value);
    if (text == nullptr || text->starts_with("ssh-rsa")) {
        return {};
    }
    std::string user = refused_path.substr(datastore_user_items.size());
    user.resize(user.size() - last_component.size());
    return "; keys of other types are added with `ssh_cfg_ctl key import " + user + " FILE`";
}
