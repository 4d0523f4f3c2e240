#include "platform/key_store.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

#include "common/machine_user.h"
#include "common/text.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/service_values.h"
#include "linux/datastore/state.h"
#include "linux/host/key_store_internal.h"
#include "linux/reporting/log_message_internal.h"
#include "platform/enforcement.h"
#include "user_keys/key_der.h"
#include "user_keys/key_file.h"
#include "user_keys/key_text.h"

namespace {

/// Whether a key is valid: a key of the configuration is valid as long as its item exists. If a crash leaves a record
/// without its item, the key is no longer valid.
bool counts(std::string_view user, const key_record& record) {
    datastore_stored item;
    return record.origin == key_origin::exec_mode || datastore_stored_get(key_record_item(user), item) == PLATFORM_OK;
}

bool is_users_key(const char* label, uint32_t type) {
    return label != nullptr && type == KEY_STORE_USER_PUBLIC_KEY && key_user_is_valid(label);
}

/// Whether a change from this origin may replace the user's present key, which is stored in `present` if there is one.
platform_status check_origin(std::string_view user, key_origin origin, key_record& present) {
    const platform_status status = key_store_find(user, present);
    if (status == PLATFORM_OK && present.origin != origin) {
        return KEY_OTHER_ORIGIN;
    }
    // A damaged record may be replaced.
    return status == EBADMSG || status == DATASTORE_NO_SUCH_ITEM ? platform_status{PLATFORM_OK} : status;
}

platform_status read_text(std::string_view text, std::string& der, uint32_t& bits) {
    rsa_public_key key;
    platform_status status = key_text_read(text, key);
    if (status == PLATFORM_OK) {
        status = key_der_make(key, der);
    }
    if (status == PLATFORM_OK) {
        bits = key_bits(key);
    }
    return status;
}

/// Writes the user's file unless it is already as required.
platform_status publish(std::string_view user, const key_record& record) {
    const std::string lines = key_record_lines(record);
    std::string present;
    if (key_file_read(user, present) == PLATFORM_OK && present == lines) {
        return PLATFORM_OK;
    }
    return key_file_write(user, lines);
}

/// Stores a record and its file, both or neither.
platform_status store_both(std::string_view user, const key_record& record) {
    const std::string place = key_record_place(user);
    std::string former;
    const bool had_former = datastore_private_get(place, former) == PLATFORM_OK;
    platform_status status = datastore_private_put(place, key_record_encode(record));
    if (status == PLATFORM_OK) {
        status = publish(user, record);
        if (status != PLATFORM_OK) {
            had_former ? datastore_private_put(place, former) : datastore_private_delete(place);
        }
    }
    return status;
}

/// Removes the file first: if a later step fails, the key still no longer admits anyone.
platform_status remove_both(std::string_view user) {
    const platform_status status = key_file_remove(user);
    return status == PLATFORM_OK ? datastore_private_delete(key_record_place(user)) : status;
}

/// Compares the keys of two records, but not their times.
bool has_same_keys(const key_record& one, const key_record& other) {
    return std::equal(one.keys.begin(), one.keys.end(), other.keys.begin(), other.keys.end(),
                      [](const authorized_key& a, const authorized_key& b) { return a == b; });
}

platform_status store(std::string_view user, const key_record& record) {
    key_record present;
    const platform_status status = check_origin(user, record.origin, present);
    // The agent applies the configured keys again at every start; their age must not change.
    if (status != PLATFORM_OK) {
        return status;
    }
    return has_same_keys(present, record) ? publish(user, present) : store_both(user, record);
}

platform_status set_key(const key_store_set_request& request) {
    rsa_public_key key;
    const std::string der(reinterpret_cast<const char*>(request.der), request.size);
    const platform_status status = key_der_read(der, key);
    return status == PLATFORM_OK
               ? store(request.label, {key_origin::configuration, {{{{}, public_key_of_rsa(key), {}}, request.time}}})
               : status;
}

platform_status remove_key(std::string_view user) {
    key_record present;
    // A commit that deletes the configured key may import another one, which is already stored then.
    if (datastore_is_being_changed(key_store_import_path(user))) {
        return PLATFORM_OK;
    }
    const platform_status status = check_origin(user, key_origin::configuration, present);
    return status == PLATFORM_OK ? remove_both(user) : status;
}

/// Whether a stored record is that of an imported key. A damaged record counts as one, so that it can be deleted.
bool is_imported(const std::string& bytes) {
    key_record record;
    return key_record_decode(bytes, record) != PLATFORM_OK || record.origin == key_origin::exec_mode;
}

/// A key for a name that nobody has would wait for whoever is given the name.
datastore_objection check_import(const std::string& user, const std::string& bytes) {
    key_record record;
    datastore_stored item;
    if (key_record_decode(bytes, record) != PLATFORM_OK) {
        return {EBADMSG, {"the stored key is damaged"}};
    }
    if (machine_user_find(user) == machine_user::unknown) {
        return {EINVAL, {text_format("user %s does not exist on this machine", user.c_str())}};
    }
    if (datastore_proposed_get(key_record_item(user), item) == PLATFORM_OK) {
        return {KEY_OTHER_ORIGIN,
                {text_format("user %s has a configured key; delete %s to remove it", user.c_str(),
                             key_record_item(user).c_str())}};
    }
    return {};
}

/// Writes or removes the file of a key that was imported or deleted.
void apply_import(const std::string& user, const std::string* bytes, bool is_changed) {
    platform_status status = PLATFORM_OK;
    if (bytes != nullptr) {
        key_record record;
        status = key_record_decode(*bytes, record);
        status = status == PLATFORM_OK ? publish(user, record) : status;
    } else if (is_changed) {
        status = key_file_remove(user);
    }
    const std::string subject = "key " + user;
    if (status == PLATFORM_OK) {
        enforcement_restored(subject.c_str());
    } else {
        enforcement_failed(subject.c_str(),
                           text_format("the file that sshd reads cannot be %s: %s",
                                       bytes != nullptr ? "written" : "removed", platform_status_text(status))
                               .c_str());
    }
}

/// Removes the key files of users who have no valid key.
void remove_others(const std::vector<key_store_entry>& entries) {
    std::vector<std::string> users;
    platform_status status = key_file_list(users);
    for (const std::string& user : users) {
        const bool has_key = std::any_of(entries.begin(), entries.end(),
                                         [&user](const key_store_entry& entry) { return entry.user == user; });
        if (status == PLATFORM_OK && !has_key) {
            status = key_file_remove(user);
        }
    }
    if (status != PLATFORM_OK) {
        platform_log(LOG_ERR, "Error:=%s(0x%x), Failed to remove all former user keys", platform_status_text(status),
                     status);
    }
}

}  // namespace

void key_store_start() try {
    std::vector<key_store_entry> entries;
    if (key_store_list(entries) != PLATFORM_OK) {
        return;
    }
    remove_others(entries);
    for (const key_store_entry& entry : entries) {
        if (const platform_status status = publish(entry.user, entry.record); status != PLATFORM_OK) {
            platform_log(LOG_ERR, "Error:=%s(0x%x), User:=%s, Failed to put the key in force",
                         platform_status_text(status), status, entry.user.c_str());
        }
    }
} catch (const std::bad_alloc&) {
    platform_log(LOG_ERR, "Failed to check the user keys: out of memory");
}

platform_status key_store_find(std::string_view user, key_record& record) {
    std::string bytes;
    key_record found;
    platform_status status = datastore_private_get(key_record_place(user), bytes);
    if (status == PLATFORM_OK) {
        status = key_record_decode(bytes, found);
    }
    if (status == PLATFORM_OK && !counts(user, found)) {
        status = DATASTORE_NO_SUCH_ITEM;
    }
    if (status == PLATFORM_OK) {
        record = std::move(found);
    }
    return status;
}

platform_status key_store_list(std::vector<key_store_entry>& entries) {
    std::string place;
    std::string bytes;
    platform_status status = PLATFORM_OK;
    while ((status = datastore_private_next(key_record_prefix, std::string(place), place, bytes)) == PLATFORM_OK) {
        key_store_entry entry = {place.substr(strlen(key_record_prefix)), {}};
        if (key_record_decode(bytes, entry.record) != PLATFORM_OK) {
            platform_log(LOG_ERR, "The stored key of user %s is damaged", entry.user.c_str());
        } else if (counts(entry.user, entry.record)) {
            entries.push_back(std::move(entry));
        }
    }
    return status == DATASTORE_NO_SUCH_ITEM ? platform_status{PLATFORM_OK} : status;
}

platform_status key_store_make_import(std::string_view user, const std::vector<authorized_key>& keys,
                                      std::string& bytes) {
    if (!key_user_is_valid(user) || keys.empty()) {
        return EINVAL;
    }
    key_record present;
    if (key_store_find(user, present) != PLATFORM_OK || present.origin != key_origin::exec_mode) {
        present.keys.clear();
    }
    key_record record = {key_origin::exec_mode, {}};
    for (const authorized_key& key : keys) {
        const auto same = std::find_if(present.keys.begin(), present.keys.end(),
                                       [&key](const authorized_key& other) { return other == key; });
        record.keys.push_back({key, same == present.keys.end() ? time(nullptr) : same->time});
    }
    if (record.keys == present.keys) {
        // A record of an earlier version has another form, but nothing would change.
        return datastore_private_get(key_record_place(user), bytes);
    }
    bytes = key_record_encode(record);
    return PLATFORM_OK;
}

std::string key_store_import_path(std::string_view user) {
    return std::string(datastore_imported_keys) += user;
}

void key_imports_start() {
    // A configured key of the user is removed before an imported one takes its place, and the other way round.
    datastore_offer_values(
        {datastore_imported_keys, key_record_prefix, false, is_imported, check_import, apply_import});
}

void key_imports_stop() {
    datastore_withdraw_values(datastore_imported_keys);
}

platform_status key_store_get_user_key(const char* label, uint32_t type, struct key_store_key* key) try {
    if (key == nullptr || !is_users_key(label, type)) {
        return EINVAL;
    }
    key_record record;
    platform_status status = key_store_find(label, record);
    // The verifiers of a commit that changes the imported key see neither the old nor the new one: check_import compares it
    // with the configured key.
    if (status == PLATFORM_OK && record.origin == key_origin::exec_mode &&
        datastore_is_being_changed(key_store_import_path(label))) {
        status = DATASTORE_NO_SUCH_ITEM;
    }
    if (status == DATASTORE_NO_SUCH_ITEM) {
        *key = {0, 0, 0};
        return PLATFORM_OK;
    }
    if (status == PLATFORM_OK) {
        *key = {1, record.origin == key_origin::exec_mode ? 1U : 0U, record.keys.front().key.bits};
    }
    return status;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

platform_status key_store_pubkey_to_der(const char* text, uint8_t* der, size_t capacity, size_t* size,
                                        uint32_t* bits) try {
    if (text == nullptr || der == nullptr || size == nullptr || bits == nullptr) {
        return EINVAL;
    }
    std::string made;
    uint32_t made_bits = 0;
    const platform_status status = read_text(text, made, made_bits);
    if (status != PLATFORM_OK || made.size() > capacity) {
        return status != PLATFORM_OK ? status : platform_status{ENOSPC};
    }
    made.copy(reinterpret_cast<char*>(der), made.size());
    *size = made.size();
    *bits = made_bits;
    return PLATFORM_OK;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

platform_status key_store_set_key(const struct key_store_set_request* request) try {
    if (request == nullptr || !is_users_key(request->label, request->type)) {
        return EINVAL;
    }
    if (request->remove != 0) {
        return remove_key(request->label);
    }
    if (request->der == nullptr || request->size > KEY_STORE_DER_MAX) {
        return EINVAL;
    }
    return set_key(*request);
} catch (const std::bad_alloc&) {
    return ENOMEM;
}
