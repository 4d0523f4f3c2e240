#include "appliers/algorithm_lists.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "appliers/algorithm_side.h"
#include "appliers/name_tuple.h"
#include "appliers/trace_points.h"
#include "config_files/algorithm_names.h"
#include "config_files/config_writer.h"
#include "config_files/name_list.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/text.h"
#include "fips/fips_mode.h"
#include "fips/offered_list.h"

namespace {

bool sets_value(const datastore_change& change) {
    return (change.event & DATASTORE_EVENT_CREATE_OR_SET) != 0 && change.value != nullptr;
}

bool deletes(const datastore_change& change) {
    return (change.event & DATASTORE_EVENT_DELETE) != 0;
}

/// Fails an applier that cannot read the state of FIPS mode; an unknown state must not be taken for off.
platform_status fail_question(const char* text, const char* function) {
    debug_print(text, function);
    trace_error(appliers_trace_fips_question, {function});
    return 1;
}

/// Composes a list from a tuple's names, without the unsupported one.
void compose_list(char* list, size_t size, const name_tuple& names, const char* dropped_name,
                  const char* dropped_message) {
    list[0] = '\0';
    for (uint32_t i = 0; i < names.count; i++) {
        if (std::strcmp(names.names[i], dropped_name) == 0) {
            log_error(dropped_message);
        } else if (names.names[i][0] != '\0') {
            append_name(list, size, names.names[i]);
        }
    }
}

void put_list(algorithm_entry& entry, const char* current, const char* second) {
    entry.current = current;
    entry.second_current = second;
}

// --- Key exchange ----------------------------------------------------------------------------------------------------

platform_status set_kex(const algorithm_side& side, const datastore_change& change) {
    name_tuple names = {};
    if (unpack_names(change, kex_name_count, "KEX-ALGO-APPLY", &names) != PLATFORM_OK) {
        return PLATFORM_OK;
    }
    compose_list(side.kex_list, kex_list_size, names, "diffie-hellman-group1-sha1",
                 "diffie-hellman-group1-sha1 is not supported, will be removed");
    put_list(*side.kex, side.kex_list, side.kex_list);
    if (choose_offered_list(*side.kex, get_modified_kex_list, fips_kex_list) != 0) {
        return fail_question(side.text.kex_question, side.text.kex_function);
    }
    trace_event(side.trace.kex, {change.event, side.kex->second_current});
    side.write(change.event, side.kex->keyword, side.kex->second_current);
    return PLATFORM_OK;
}

platform_status reset_kex(const algorithm_side& side, const datastore_change& change) {
    put_list(*side.kex, side.kex->default_text, side.kex->default_text);
    const int32_t fips_mode = fips_mode_get();
    if (fips_mode < 0) {
        return fail_question(side.text.kex_question, side.text.kex_function);
    }
    if (fips_mode == 1) {
        side.kex->second_current = fips_kex_list;
    }
    trace_event(side.trace.kex, {change.event, side.kex->second_current});
    side.write(event_set_value, side.kex->keyword, side.kex->second_current);
    return PLATFORM_OK;
}

platform_status apply_kex(const algorithm_side& side, const datastore_change& change) {
    debug_print(side.text.kex_event, static_cast<int>(change.event));
    if (sets_value(change)) {
        return set_kex(side, change);
    }
    return deletes(change) ? reset_kex(side, change) : PLATFORM_OK;
}

// --- Ciphers ---------------------------------------------------------------------------------------------------------

void append_missing_names(char* list, const char* names) {
    char name[TUPLE_NAME_MAX + 1];
    while (next_name(&names, ", ", name, sizeof name)) {
        if (std::strstr(list, name) == nullptr) {
            append_name(list, algorithm_list_size, name);
        }
    }
}

/// Composes the list in force from the base and the enabled legacy ciphers.
void compose_ciphers(const algorithm_side& side) {
    copy_text(side.cipher_list, algorithm_list_size, side.cipher_base);
    if ((*side.legacy_cipher_mask & LEGACY_AES_CBC) != 0) {
        append_missing_names(side.cipher_list, legacy_aes_ciphers);
    }
    if ((*side.legacy_cipher_mask & LEGACY_3DES) != 0) {
        append_missing_names(side.cipher_list, "3des-cbc");
    }
    put_list(*side.ciphers, side.cipher_list, side.cipher_list);
}

constexpr char dropped_3des_message[] = "3des-cbc is not supported, will be removed";

/// Writes the base and the legacy ciphers, filtered in FIPS mode.
platform_status write_cipher_base(const algorithm_side& side, uint32_t event) {
    compose_ciphers(side);
    if (choose_offered_list(*side.ciphers, get_modified_cipher_list, fips_cipher_list) != 0) {
        return fail_question(side.text.cipher_question, "cipheralgo");
    }
    trace_event(side.trace.cipher, {event, side.ciphers->second_current});
    side.write(event, side.ciphers->keyword, side.ciphers->second_current);
    return PLATFORM_OK;
}

platform_status set_ciphers(const algorithm_side& side, const datastore_change& change) {
    name_tuple names = {};
    if (unpack_names(change, cipher_name_count, "CIPHER-ALGO-APPLY", &names) != PLATFORM_OK) {
        return PLATFORM_OK;
    }
    compose_list(side.cipher_base, algorithm_list_size, names, "3des-cbc", dropped_3des_message);
    return write_cipher_base(side, change.event);
}

platform_status reset_ciphers(const algorithm_side& side) {
    copy_text(side.cipher_base, algorithm_list_size, side.ciphers->default_text);
    return write_cipher_base(side, event_set_value);
}

platform_status apply_ciphers(const algorithm_side& side, const datastore_change& change) {
    debug_print(side.text.cipher_event, static_cast<int>(change.event));
    if (sets_value(change)) {
        return set_ciphers(side, change);
    }
    return deletes(change) ? reset_ciphers(side) : PLATFORM_OK;
}

// --- Legacy ciphers --------------------------------------------------------------------------------------------------

platform_status fail_cipher_write(const algorithm_side& side) {
    const int error = errno;
    log_status(ERR_ERRNO, static_cast<platform_status>(error), "Failed to update cipher List in Config file");
    debug_print("Error:=%s(0x%x): %s, failed to update cipher list in  config file",
                platform_status_text(static_cast<platform_status>(error)), error, side.text.legacy_function);
    trace_error(appliers_trace_cipher_write, {side.text.legacy_function, error});
    return 1;
}

platform_status write_filtered_ciphers(const algorithm_side& side, uint32_t event) {
    const std::unique_ptr<modified_list> filtered(new (std::nothrow) modified_list);
    if (filtered == nullptr) {
        debug_print("Error:=%s(0x%x)  memory allocation failed for cipher", platform_status_text(ENOMEM), ENOMEM);
        trace_error(appliers_trace_memory, {side.text.legacy_function});
        return 1;
    }
    if (get_modified_cipher_list(side.cipher_list, filtered->text) != 0) {
        debug_print("%s, Invalid cipher  list", side.text.legacy_function);
        return 1;
    }
    algorithm_entry& ciphers = *side.ciphers;
    copy_text(ciphers.fips_text, sizeof ciphers.fips_text, filtered->text);
    ciphers.second_current = ciphers.fips_text;
    return side.write(event, ciphers.keyword, ciphers.fips_text) == 0 ? PLATFORM_OK : fail_cipher_write(side);
}

/// Writes the list in force, filtered in FIPS mode.
platform_status write_ciphers(const algorithm_side& side, uint32_t event) {
    trace_event(side.trace.legacy_cipher, {event, *side.legacy_cipher_mask, side.cipher_list});
    const int32_t fips_mode = fips_mode_get();
    if (fips_mode < 0) {
        return fail_question(side.text.legacy_question, side.text.legacy_function);
    }
    if (fips_mode == 1) {
        return write_filtered_ciphers(side, event);
    }
    side.write(event, side.ciphers->keyword, side.cipher_list);
    return PLATFORM_OK;
}

platform_status enable_legacy_ciphers(const algorithm_side& side, const datastore_change& change) {
    constexpr uint32_t flag_count = 2;
    int32_t flags[flag_count] = {};
    if (unpack_flags(change, flag_count, "ENABLE-CIPHER-APPLY", flags) != PLATFORM_OK) {
        return PLATFORM_OK;
    }
    if (flags[0] != 0) {
        // Only removing the item removes the ciphers.
        *side.legacy_cipher_mask |= LEGACY_AES_CBC;
    }
    if (flags[1] != 0) {
        log_error(dropped_3des_message);
    }
    compose_ciphers(side);
    debug_print("Enabled old ciphers mask - %d", static_cast<int>(*side.legacy_cipher_mask));
    return write_ciphers(side, change.event);
}

platform_status remove_legacy_ciphers(const algorithm_side& side) {
    *side.legacy_cipher_mask = 0;
    debug_print("Removed old ciphers - %d", static_cast<int>(*side.legacy_cipher_mask));
    compose_ciphers(side);
    return write_ciphers(side, event_set_value);
}

platform_status apply_legacy_ciphers(const algorithm_side& side, const datastore_change& change) {
    debug_print(side.text.legacy_event, static_cast<int>(change.event));
    if (deletes(change)) {
        return remove_legacy_ciphers(side);
    }
    return sets_value(change) ? enable_legacy_ciphers(side, change) : PLATFORM_OK;
}

}  // namespace

platform_status sshd_apply_kexalgo(const datastore_change* change, const datastore_path_components*) {
    return apply_kex(server_side, *change);
}

platform_status ssh_client_apply_kexalgo(const datastore_change* change, const datastore_path_components*) {
    return apply_kex(client_side, *change);
}

platform_status sshd_apply_cipheralgo(const datastore_change* change, const datastore_path_components*) {
    return apply_ciphers(server_side, *change);
}

platform_status ssh_client_apply_cipheralgo(const datastore_change* change, const datastore_path_components*) {
    return apply_ciphers(client_side, *change);
}

platform_status sshd_apply_cipher(const datastore_change* change, const datastore_path_components*) {
    return apply_legacy_ciphers(server_side, *change);
}

platform_status ssh_client_apply_cipher(const datastore_change* change, const datastore_path_components*) {
    return apply_legacy_ciphers(client_side, *change);
}
