#include "appliers/algorithm_verifiers.h"

#include <cerrno>
#include <cstring>

#include "appliers/name_tuple.h"
#include "appliers/trace_points.h"
#include "config_files/algorithm_names.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/refusal.h"
#include "fips/fips_mode.h"

namespace {

/// A kind of list and the texts about it.
struct list_rules {
    algorithm_kind kind;
    uint32_t name_count;       ///< number of configurable names, which is also the most that a list holds
    const char* dropped_name;  ///< dropped by the applier, so it must not be the only name
    trace_error_point trace_point;
    const char* unpack_tag;
    const char* unpack_text;
    const char* question_text;
    const char* outside_fips_debug;
    const char* outside_fips_text;
    const char* unknown_text;
    const char* repeated_text;
    const char* alone_text;
    const char* second_question_message;  ///< null: in FIPS mode the dropped name is not checked
    const char* dropped_in_fips_text;
};

constexpr composed_list kex_outside_fips_text =
    compose::fips_names(algorithm_kind::kex, algorithm_fips::refused,
                        "  not allowed in FIPS mode.Please configure allowed cipher algos in FIPS mode.");

constexpr list_rules kex_rules = {
    .kind = algorithm_kind::kex,
    .name_count = kex_name_count,
    .dropped_name = "diffie-hellman-group1-sha1",
    .trace_point = appliers_trace_kex_refused,
    .unpack_tag = "KEX-ALGO-VERIFY",
    .unpack_text = "tuple unpack failed for ssh kexalgorithms",
    .question_text = "Failed to check fips mode in kex verifier",
    .outside_fips_debug = "Kex Algo = %s not allowed in FIPS mode",
    .outside_fips_text = kex_outside_fips_text.text,
    .unknown_text = "unknown ssh kexalgorithms %s",
    .repeated_text = "Kex-algorithms:=%s, selected multiple times",
    .alone_text = "diffie-hellman-group1-sha1 is not supported, SSH will not work with only this config",
    .second_question_message = "Failed to check fips mode in  Kexalgo Verifier",
    .dropped_in_fips_text = "key exchange                               algorithms %s not supported in fips mode",
};

constexpr list_rules cipher_rules = {
    .kind = algorithm_kind::cipher,
    .name_count = cipher_name_count,
    .dropped_name = "3des-cbc",
    .trace_point = appliers_trace_cipher_refused,
    .unpack_tag = "CIPHER-ALGO-VERIFY",
    .unpack_text = "tuple unpack failed for ssh cipher algorithms",
    .question_text = "Failed to check fips mode in cipher verifier",
    .outside_fips_debug = "Cipher = %s not allowed in FIPS mode",
    .outside_fips_text =
        "chacha20-poly1305 not allowed in FIPS mode.Please configure allowed cipher algos in FIPS mode.",
    .unknown_text = "unknown ssh cipher algorithms %s",
    .repeated_text = "Cipher-algorithms:=%s, selected multiple times",
    .alone_text = "3des-cbc is not supported in norvossh, SSH cannot work with this option only",
    .second_question_message = nullptr,
    .dropped_in_fips_text = nullptr,
};

static_assert(count_algorithms(algorithm_kind::cipher, algorithm_fips::refused) == 1, "its refusal names it");

/// Where a refusal goes.
struct refusal_target {
    char** error_text;
    uint32_t* accepted;
};

/// The row of a configurable name, or null.
const algorithm_row* find_configurable(const list_rules& rules, const char* name) {
    const algorithm_row* row = algorithm_named(rules.kind, name);
    return row != nullptr && row->setting >= 0 ? row : nullptr;
}

bool names_dropped_one(const list_rules& rules, const name_tuple& list) {
    for (uint32_t i = 0; i < list.count; i++) {
        if (std::strcmp(list.names[i], rules.dropped_name) == 0) {
            return true;
        }
    }
    return false;
}

platform_status refuse(const list_rules& rules, const refusal_target& to, const char* format, const char* name) {
    return refuse_change(to.error_text, to.accepted, EINVAL, rules.trace_point, format, name);
}

/// Checks FIPS mode if the name is one that it forbids.
platform_status verify_in_fips_mode(const list_rules& rules, const refusal_target& to, const char* name) {
    const algorithm_row* row = algorithm_named(rules.kind, name);
    if (row == nullptr || row->fips != algorithm_fips::refused) {
        return PLATFORM_OK;
    }
    const int32_t fips_mode = fips_mode_get();
    if (fips_mode < 0) {
        return refuse(rules, to, "%s", rules.question_text);
    }
    if (fips_mode == 0) {
        return PLATFORM_OK;
    }
    debug_print(rules.outside_fips_debug, name);
    return refuse(rules, to, "%s", rules.outside_fips_text);
}

platform_status verify_name(const list_rules& rules, const refusal_target& to, const char* name, uint32_t* seen) {
    const platform_status status = verify_in_fips_mode(rules, to, name);
    if (status != PLATFORM_OK) {
        return status;
    }
    const algorithm_row* row = find_configurable(rules, name);
    if (row == nullptr) {
        return refuse(rules, to, rules.unknown_text, name);
    }
    const uint32_t bit = 1U << row->setting;
    if ((*seen & bit) != 0) {
        return refuse(rules, to, rules.repeated_text, name);
    }
    *seen |= bit;
    return PLATFORM_OK;
}

/// Checks the name that the applier will drop.
platform_status verify_dropped_name(const list_rules& rules, const refusal_target& to, const name_tuple& list) {
    int32_t fips_mode = 0;
    if (rules.second_question_message != nullptr) {
        fips_mode = fips_mode_get();
        if (fips_mode < 0) {
            log_error(rules.second_question_message);
            trace_error(rules.trace_point, {rules.second_question_message});
            *to.accepted = 0;
            return 1;
        }
    }
    const bool present = names_dropped_one(rules, list);
    if (present && list.count == 1) {
        return refuse(rules, to, "%s", rules.alone_text);
    }
    return present && fips_mode == 1 ? refuse(rules, to, rules.dropped_in_fips_text, rules.dropped_name) : PLATFORM_OK;
}

platform_status verify_list(const list_rules& rules, const datastore_change& change, const refusal_target& to) {
    name_tuple list = {};
    platform_status status = unpack_names(change, rules.name_count, rules.unpack_tag, &list);
    if (status != PLATFORM_OK) {
        return refuse_change(to.error_text, to.accepted, status, rules.trace_point, "%s", rules.unpack_text);
    }
    uint32_t seen = 0;
    for (uint32_t i = 0; i < list.count; i++) {
        status = verify_name(rules, to, list.names[i], &seen);
        if (status != PLATFORM_OK) {
            return status;
        }
    }
    return verify_dropped_name(rules, to, list);
}

platform_status accept_when_ok(platform_status status, uint32_t* accepted) {
    if (status == PLATFORM_OK) {
        *accepted = 1;
    }
    return status;
}

bool needs_checking(const datastore_change& change) {
    return (change.event & DATASTORE_EVENT_CREATE_OR_SET) != 0;
}

static_assert(count_algorithms(algorithm_kind::key, algorithm_fips::refused) == 4, "their refusal names them");

bool names_key_outside_fips(const int32_t* flags) {
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == algorithm_kind::key && row.setting >= 0 && row.fips == algorithm_fips::refused &&
            flags[row.setting] != 0) {
            return true;
        }
    }
    return flags[all_rsa_setting] != 0;  // ssh-rsa is one of them
}

platform_status refuse_host_key(const refusal_target& to, platform_status status, const char* text) {
    return refuse_change(to.error_text, to.accepted, status, appliers_trace_host_key_refused, "%s", text);
}

platform_status verify_host_keys(const datastore_change& change, const refusal_target& to) {
    int32_t flags[host_key_flag_count] = {};
    const platform_status status = unpack_flags(change, host_key_flag_count, "HOSTKEY-ALGO-VERIFY", flags);
    if (status != PLATFORM_OK) {
        return refuse_host_key(to, status, "tuple unpack failed for ssh hostkey algorithms");
    }
    if (!names_key_outside_fips(flags)) {
        return PLATFORM_OK;
    }
    const int32_t fips_mode = fips_mode_get();
    if (fips_mode < 0) {
        return refuse_host_key(to, EINVAL, "Failed to check fips mode in Hostkey verifier");
    }
    if (fips_mode == 0) {
        return PLATFORM_OK;
    }
    return refuse_host_key(
        to, EINVAL,
        "DSA, RSA(ssh-rsa), X509 and ED25519 are not supported in FIPS mode for NorvoSSH. Please configure allowed hostkey algorithms in FIPS mode");
}

}  // namespace

platform_status kex_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                             const datastore_path_components*) {
    debug_print("%s, Entered", __func__);
    return accept_when_ok(
        needs_checking(*change) ? verify_list(kex_rules, *change, {error_text, accepted}) : PLATFORM_OK, accepted);
}

platform_status cipher_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                const datastore_path_components*) {
    debug_print("%s, Entered", __func__);
    return accept_when_ok(
        needs_checking(*change) ? verify_list(cipher_rules, *change, {error_text, accepted}) : PLATFORM_OK, accepted);
}

platform_status host_key_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                  const datastore_path_components*) {
    debug_print("%s, Entered", __func__);
    return accept_when_ok(needs_checking(*change) ? verify_host_keys(*change, {error_text, accepted}) : PLATFORM_OK,
                          accepted);
}
