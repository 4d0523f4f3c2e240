/// What FIPS mode leaves of a list of algorithms, and the key files that belong to a list of host-key algorithms.
#ifndef FIPS_LIST_FILTER_H
#define FIPS_LIST_FILTER_H

#include <cstddef>

#include "config_files/parameter_table.h"

inline constexpr size_t modified_list_size = fips_algorithm_text_size;

/// A filtered list. Every name in it is followed by a comma, including the last; a list with no names left is empty.
struct modified_list {
    char text[modified_list_size];
};

/// Filter a comma-separated list into `out` (modified_list_size bytes; may be the list itself). Each returns 0, even if
/// nothing is left, or -1 for a list that is null or empty, leaving `out` unchanged.
int get_modified_kex_list(const char* list, char* out);
int get_modified_cipher_list(const char* list, char* out);
int get_modified_hostkey_list(const char* list, char* out);

using list_filter_function = int (*)(const char* list, char* out);

/// The key files of the list last passed to the function below; the server's host-key lines name them in FIPS mode.
extern char fips_hostkey_files[algorithm_list_size];

/// Fills fips_hostkey_files with the files of a list's algorithms, in its order and with duplicates; null empties it.
/// Returns 0, or -1 if the list has no file or memory is exhausted.
int fips_hostkey_files_from_list(const char* list);

#endif
