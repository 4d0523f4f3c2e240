/// A keyword of a configuration file and its value.
#ifndef CONFIG_FILES_LINE_ENTRY_H
#define CONFIG_FILES_LINE_ENTRY_H

#include <cstdint>

struct line_entry {
    const char* default_text;  ///< restored when the item is deleted
    const char* current;       ///< in force; null or empty: the keyword is not written
    const char* keyword;
    uint32_t allvrf;  ///< handed to update_config_files_restart; unused for the client
};

/// A list of algorithms; the second text is the one narrowed in FIPS mode.
struct algorithm_entry {
    const char* default_text;
    const char* current;
    const char* second_current;
    const char* keyword;
    uint32_t allvrf;
};

#endif
