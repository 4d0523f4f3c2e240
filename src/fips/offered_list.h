/// What a list may offer: the whole list, or in FIPS mode what the filters leave of it.
#ifndef FIPS_OFFERED_LIST_H
#define FIPS_OFFERED_LIST_H

#include "config_files/parameter_table.h"
#include "fips/list_filter.h"

/// Sets the entry's second text: its current text if FIPS mode is off or removes nothing, else the names that are left,
/// or `fips_default` if none is. The current text stays as it is. Returns 0, or -1 with the second text unchanged if it
/// is not known whether FIPS mode is on.
int choose_offered_list(algorithm_entry& entry, list_filter_function filter, const char* fips_default);

/// The same for the server's host keys, whose files follow from the algorithms.
int choose_offered_host_keys();

#endif
