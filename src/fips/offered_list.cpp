#include "fips/offered_list.h"

#include <cstring>

#include "config_files/algorithm_names.h"
#include "core/text.h"
#include "fips/fips_mode.h"

namespace {

size_t count_names(const char* list) {
    size_t count = 0;
    bool in_name = false;
    for (; *list != '\0'; list++) {
        count += *list != ',' && !in_name ? 1 : 0;
        in_name = *list != ',';
    }
    return count;
}

/// Filters the current text into the second one. Returns whether anything was removed.
bool narrow(algorithm_entry& entry, list_filter_function filter, const char* fips_default) {
    modified_list left;
    if (filter(entry.current, left.text) != 0 || count_names(left.text) == count_names(entry.current)) {
        return false;
    }
    const size_t length = std::strlen(left.text);
    if (length == 0) {
        entry.second_current = fips_default;
        return true;
    }
    left.text[length - 1] = '\0';  // the filters end every name with a comma
    copy_text(entry.fips_text, sizeof entry.fips_text, left.text);
    entry.second_current = entry.fips_text;
    return true;
}

}  // namespace

int choose_offered_list(algorithm_entry& entry, list_filter_function filter, const char* fips_default) {
    const int32_t fips_mode = fips_mode_get();
    if (fips_mode < 0) {
        return -1;
    }
    entry.second_current = entry.current;
    if (fips_mode == 1) {
        narrow(entry, filter, fips_default);
    }
    return 0;
}

int choose_offered_host_keys() {
    algorithm_entry& files = server_config.algorithms[SERVER_HOST_KEY];
    algorithm_entry& algorithms = server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS];
    const int32_t fips_mode = fips_mode_get();
    if (fips_mode < 0) {
        return -1;
    }
    files.second_current = files.current;
    algorithms.second_current = algorithms.current;
    if (fips_mode == 1 && narrow(algorithms, get_modified_hostkey_list, fips_host_key_algorithms)) {
        const bool found = fips_hostkey_files_from_list(algorithms.second_current) == 0;
        files.second_current = found ? fips_hostkey_files : fips_host_keys;
    }
    return 0;
}
