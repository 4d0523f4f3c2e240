#include "appliers/user_keys.h"

#include <cerrno>
#include <ctime>
#include <memory>
#include <new>

#include "appliers/aaa_users.h"
#include "appliers/trace_points.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/refusal.h"
#include "core/text.h"
#include "core/trace.h"
#include "platform/key_store.h"

namespace {

constexpr uint32_t user_name_component = 2;
constexpr char key_prefix[] = "ssh-rsa";

using work_buffer = std::unique_ptr<uint8_t[]>;

work_buffer allocate_work_buffer() {
    return work_buffer(new (std::nothrow) uint8_t[KEY_STORE_DER_MAX]);
}

/// The user of an item; null if the path names none.
const char* user_of(const datastore_path_components* components) {
    const char* name = components->count > user_name_component ? components->component[user_name_component] : nullptr;
    return name != nullptr && name[0] != '\0' ? name : nullptr;
}

/// Where a verifier's refusal goes.
struct verdict {
    char** error_text;
    uint32_t* accepted;

    platform_status accept() const {
        *accepted = 1;
        return PLATFORM_OK;
    }
    platform_status refuse(platform_status status, const char* text) const {
        return refuse_change(error_text, accepted, status, appliers_trace_user_key_refused, "%s", text);
    }
};

platform_status verify_user(const verdict& verdict, const char* user_name) {
    bool found = false;
    const platform_status status = find_aaa_user(user_name, &found);
    if (status != PLATFORM_OK) {
        return verdict.refuse(status, "The list of users cannot be read");
    }
    if (!found) {
        return verdict.refuse(EINVAL, "Username not present in database");
    }
    log_text(INFO_GENERAL, "Username found in database");
    return PLATFORM_OK;
}

platform_status verify_text(const verdict& verdict, const char* text, uint8_t* der) {
    if (!begins_with(text, key_prefix)) {
        return verdict.refuse(EINVAL, "Key is not in ssh public key format. Key should begin with ssh-rsa");
    }
    debug_print("Keystring in verifier = %s", text);
    size_t size = 0;
    uint32_t bits = 0;
    const platform_status status = key_store_pubkey_to_der(text, der, KEY_STORE_DER_MAX, &size, &bits);
    if (status != PLATFORM_OK) {
        return refuse_change(verdict.error_text, verdict.accepted, status, appliers_trace_user_key_refused,
                             "SSH pubkey conversion to DER failed:%s", platform_status_text(status));
    }
    return verdict.accept();
}

platform_status verify_new_key(const verdict& verdict, const char* user_name, const key_store_key& held,
                               const char* text) {
    if (text == nullptr) {
        return verdict.refuse(EINVAL, "newvalue returned from datastore is NULL");
    }
    const work_buffer der = allocate_work_buffer();
    if (der == nullptr) {
        log_error("Failed to allocate memory for pubkey");
        return verdict.refuse(EINVAL, "Failed to allocate memory for pubkey");
    }
    if (const platform_status status = verify_user(verdict, user_name); status != PLATFORM_OK) {
        return status;
    }
    if (held.present != 0 && held.added_by_exec_mode != 0) {
        return verdict.refuse(EEXIST, "Key is added as part of exec mode, Public key insertion is not allowed\n");
    }
    if (held.present != 0) {
        log_text(INFO_GENERAL, "Key for user already exists Updating new key");
    }
    return verify_text(verdict, text, der.get());
}

platform_status remove_key(const char* user_name) {
    key_store_set_request request = {};
    request.label = user_name;
    request.type = KEY_STORE_USER_PUBLIC_KEY;
    request.remove = 1;
    const platform_status status = key_store_set_key(&request);
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, "Failed to remove the key");
        trace_error(appliers_trace_user_key_failed, {user_name, status});
        return 1;
    }
    trace_event(appliers_trace_user_key, {user_name, 0});
    return PLATFORM_OK;
}

platform_status store_key(const char* function, const char* user_name, const char* text) {
    const work_buffer der = allocate_work_buffer();
    if (der == nullptr) {
        log_error("Failed to allocate memory for pubkey");
        trace_error(appliers_trace_user_key_failed, {user_name, ENOMEM});
        return 1;
    }
    debug_print("Key string = %s", text);
    size_t size = 0;
    uint32_t bits = 0;
    platform_status status = key_store_pubkey_to_der(text, der.get(), KEY_STORE_DER_MAX, &size, &bits);
    if (status != PLATFORM_OK) {
        debug_print("%s: Failed to convert to DER format rc = (0x%x) : %s ", function, status,
                    platform_status_text(status));
        trace_error(appliers_trace_user_key_failed, {user_name, status});
        return 1;
    }
    debug_print("%s: key_store_set_key, label:=%s, key-type:=%d", function, user_name, KEY_STORE_USER_PUBLIC_KEY);
    const key_store_set_request request = {user_name, KEY_STORE_USER_PUBLIC_KEY, 0, std::time(nullptr), bits, der.get(),
                                           size};
    status = key_store_set_key(&request);
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, "Failed to add the key");
        trace_error(appliers_trace_user_key_failed, {user_name, status});
        return 1;
    }
    trace_event(appliers_trace_user_key, {user_name, bits});
    return PLATFORM_OK;
}

}  // namespace

platform_status user_key_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                  const datastore_path_components* components) {
    const verdict verdict = {error_text, accepted};
    const char* user_name = user_of(components);
    if (user_name == nullptr) {
        return verdict.refuse(EINVAL, "Username is NULL");
    }
    key_store_key held = {};
    const platform_status status = key_store_get_user_key(user_name, KEY_STORE_USER_PUBLIC_KEY, &held);
    if (status != PLATFORM_OK) {
        // Without the key's origin nothing may change: a key added from the exec mode must not be touched.
        return verdict.refuse(status, "The user's key cannot be looked up");
    }
    if ((change->event & DATASTORE_EVENT_DELETE) == 0) {
        return verify_new_key(verdict, user_name, held, static_cast<const char*>(change->value));
    }
    if (held.present != 0 && held.added_by_exec_mode != 0) {
        return verdict.refuse(EINVAL, "Key to be deleted via  exec mode");
    }
    return verdict.accept();
}

platform_status sshd_apply_user_keystr(const datastore_change* change, const datastore_path_components* components) {
    debug_print("(%s) sshd_apply_user_keystr whichevent %d", __func__, static_cast<int>(change->event));
    const char* user_name = user_of(components);
    const bool removes = (change->event & DATASTORE_EVENT_DELETE) != 0;
    if (user_name == nullptr || (!removes && change->value == nullptr)) {
        trace_error(appliers_trace_item_name, {user_name});
        return 1;
    }
    return removes ? remove_key(user_name) : store_key(__func__, user_name, static_cast<const char*>(change->value));
}
