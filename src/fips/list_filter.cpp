#include "fips/list_filter.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "config_files/name_list.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/text.h"
#include "fips/trace_points.h"
#include "platform/algorithms.h"

char fips_hostkey_files[algorithm_list_size];

namespace {

constexpr size_t longest_slot = 40;

struct list_filter {
    const char* function;
    const char* entered_text;
    const char* no_list_text;
    const char* result_text;
    const char* nothing_left_text;  ///< null: result_text alone is printed
    size_t slot_size;               ///< names are compared and kept up to this length, including the NUL
    algorithm_kind kind;            ///< has as many slots as settings; names beyond these are dropped
};

constexpr list_filter kex_filter = {
    .function = "get_modified_kex_list",
    .entered_text = "Inside Get Modified kex list",
    .no_list_text = "%s, Kexalgo list is empty",
    .result_text = "%s: New kexalgo list is %s",
    .nothing_left_text = nullptr,
    .slot_size = longest_slot,
    .kind = algorithm_kind::kex,
};

constexpr list_filter cipher_filter = {
    .function = "get_modified_cipher_list",
    .entered_text = "Inside Get Modified Cipher list",
    .no_list_text = "%s, Cipher algo list is empty",
    .result_text = "%s: New Cipher algo list is %s",
    .nothing_left_text = nullptr,
    .slot_size = longest_slot,
    .kind = algorithm_kind::cipher,
};

constexpr list_filter host_key_filter = {
    .function = "get_modified_hostkey_list",
    .entered_text = "Inside %s",
    .no_list_text = "%s, HostKey algo list is empty",
    .result_text = "%s, New Hostkey algo list is %s",
    .nothing_left_text = "HostKey algo list empty. ",
    .slot_size = 30,
    .kind = algorithm_kind::key,
};

constexpr bool slots_hold_names(const list_filter& filter) {
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == filter.kind && row.setting >= 0 && std::string_view(row.name).size() >= filter.slot_size) {
            return false;
        }
    }
    return true;
}
static_assert(slots_hold_names(kex_filter) && slots_hold_names(cipher_filter) && slots_hold_names(host_key_filter));

/// A refused algorithm also refuses every name that begins with its own.
bool is_allowed(const list_filter& filter, const char* name) {
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == filter.kind && row.fips == algorithm_fips::refused && begins_with(name, row.name)) {
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
    const size_t slot_count = algorithm_settings(filter.kind);
    for (size_t i = 0; i < slot_count && next_name(&list, ",", slot, filter.slot_size); i++) {
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

/// The name that identifies a key's file. For the DSA key it is one that no list contains, so its file is never found.
const char* file_name_of(const algorithm_row& row) {
    return std::strcmp(row.name, "ssh-dss") == 0 ? "ssh-dsa" : row.name;
}

void append_host_key_file(const char* algorithm) {
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == algorithm_kind::key && row.key_file[0] != '\0' &&
            std::strcmp(file_name_of(row), algorithm) == 0) {
            append_name(fips_hostkey_files, sizeof fips_hostkey_files, row.key_file);
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
