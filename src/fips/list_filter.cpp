#include "fips/list_filter.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <span>

#include "config_files/algorithm_names.h"
#include "config_files/name_list.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/text.h"
#include "fips/trace_points.h"

char fips_hostkey_files[algorithm_list_size];

namespace {

constexpr size_t longest_slot = 40;

struct list_filter {
    const char* function;
    const char* entered_text;
    const char* no_list_text;
    const char* result_text;
    const char* nothing_left_text;            ///< null: said with result_text alone
    size_t slot_size;                         ///< a name is looked at, and kept, up to this length, NUL included
    size_t slot_count;                        ///< names behind these are dropped
    std::span<const char* const> disallowed;  ///< beginnings of names
};

// The beginning of the one name is the whole of the other.
constexpr const char* disallowed_kex[] = {ALGORITHM_CURVE25519_SHA256};
constexpr const char* disallowed_ciphers[] = {ALGORITHM_CHACHA20_POLY1305};
constexpr const char* disallowed_host_keys[] = {"ssh-dss", "ssh-ed25519", "ssh-rsa", "x509v3-ssh-rsa"};

constexpr list_filter kex_filter = {
    .function = "get_modified_kex_list",
    .entered_text = "Inside Get Modified kex list",
    .no_list_text = "%s, Kexalgo list is empty",
    .result_text = "%s: New kexalgo list is %s",
    .nothing_left_text = nullptr,
    .slot_size = longest_slot,
    .slot_count = 9,
    .disallowed = disallowed_kex,
};

constexpr list_filter cipher_filter = {
    .function = "get_modified_cipher_list",
    .entered_text = "Inside Get Modified Cipher list",
    .no_list_text = "%s, Cipher algo list is empty",
    .result_text = "%s: New Cipher algo list is %s",
    .nothing_left_text = nullptr,
    .slot_size = longest_slot,
    .slot_count = 10,
    .disallowed = disallowed_ciphers,
};

constexpr list_filter host_key_filter = {
    .function = "get_modified_hostkey_list",
    .entered_text = "Inside %s",
    .no_list_text = "%s, HostKey algo list is empty",
    .result_text = "%s, New Hostkey algo list is %s",
    .nothing_left_text = "HostKey algo list empty. ",
    .slot_size = 30,
    .slot_count = 10,
    .disallowed = disallowed_host_keys,
};

bool is_allowed(const list_filter& filter, const char* name) {
    for (const char* beginning : filter.disallowed) {
        if (begins_with(name, beginning)) {
            return false;
        }
    }
    return true;
}

int filter_list(const list_filter& filter, const char* list, char* out) {
    debug_print(filter.entered_text, filter.function);
    if (list == nullptr || *list == '\0') {
        debug_print(filter.no_list_text, filter.function);
        trace_error(fips_trace_list, {filter.function});
        return -1;
    }
    modified_list result = {};
    char slot[longest_slot];
    size_t length = 0;
    for (size_t i = 0; i < filter.slot_count && next_name(&list, ",", slot, filter.slot_size); i++) {
        if (is_allowed(filter, slot)) {
            length += format_text(result.text + length, sizeof result.text - length, "%s,", slot);
        }
    }
    debug_print(filter.result_text, filter.function, result.text);
    if (length == 0 && filter.nothing_left_text != nullptr) {
        debug_print("%s", filter.nothing_left_text);
    }
    copy_text(out, modified_list_size, result.text);
    return 0;
}

struct host_key_file_row {
    const char* algorithm;
    const char* file;
};

// The list's "ssh-dss" is no "ssh-dsa": a DSA key never finds its file here.
constexpr host_key_file_row host_key_files[] = {
    {"ssh-rsa", "/pkg/rsa"},
    {"ssh-dsa", "/pkg/dsa"},
    {"ecdsa-sha2-nistp256", "/pkg/ecdsa-sha2-nistp256"},
    {"ecdsa-sha2-nistp384", "/pkg/ecdsa-sha2-nistp384"},
    {"ecdsa-sha2-nistp521", "/pkg/ecdsa-sha2-nistp521"},
    {"ssh-ed25519", "/pkg/ed25519"},
};

/// The algorithms of one key go by its own name.
const char* key_name(const char* algorithm) {
    const bool is_rsa = std::strcmp(algorithm, "rsa-sha2-512") == 0 || std::strcmp(algorithm, "rsa-sha2-256") == 0;
    return is_rsa ? "ssh-rsa" : algorithm;
}

void append_host_key_file(const char* algorithm) {
    for (const host_key_file_row& row : host_key_files) {
        if (std::strcmp(row.algorithm, key_name(algorithm)) == 0) {
            append_name(fips_hostkey_files, sizeof fips_hostkey_files, row.file);
            return;
        }
    }
    debug_print("hostkeyalgo:=%s, no correspondinghostkey file present", algorithm);
}

}  // namespace

int get_modified_kex_list(const char* list, char* out) {
    return filter_list(kex_filter, list, out);
}

int get_modified_cipher_list(const char* list, char* out) {
    return filter_list(cipher_filter, list, out);
}

int get_modified_hostkey_list(const char* list, char* out) {
    return filter_list(host_key_filter, list, out);
}

int fips_hostkey_files_from_list(const char* list) {
    fips_hostkey_files[0] = '\0';
    if (list == nullptr) {
        debug_print("HostKey is empty. So setting files  to be empty as well");
        return 0;
    }
    const std::unique_ptr<char, decltype(&std::free)> copy(strdup(list), std::free);
    if (copy == nullptr) {
        log_errno("memory allocation failure");
        trace_error(fips_trace_memory, {__func__});
        return -1;
    }
    char* rest = nullptr;
    for (char* name = strtok_r(copy.get(), ",", &rest); name != nullptr; name = strtok_r(nullptr, ",", &rest)) {
        append_host_key_file(name);
    }
    if (fips_hostkey_files[0] == '\0') {
        log_error("host key file list is empty");
        trace_error(fips_trace_host_key_files, {list});
        return -1;
    }
    return 0;
}
