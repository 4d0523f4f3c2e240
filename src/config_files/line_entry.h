/// A keyword of a configuration file and its value.
#ifndef CONFIG_FILES_LINE_ENTRY_H
#define CONFIG_FILES_LINE_ENTRY_H

#include <cstddef>
#include <cstdint>

inline constexpr size_t setting_text_size = 201;         ///< 200 characters and NUL
inline constexpr size_t algorithm_text_size = 230;       ///< 229 characters and NUL
inline constexpr size_t fips_algorithm_text_size = 255;  ///< 254 characters and NUL

struct line_entry {
    const char* default_text;  ///< restored when the item is deleted
    const char* current;       ///< in force; if null or empty, the keyword is not written
    const char* keyword;
    uint32_t allvrf;  ///< passed to update_config_files_restart; unused for the client
};

/// Formats the rest of a file's line from the current text into `buffer` (`size` bytes), cut at its end.
using line_text_maker = void (*)(const char* text, char* buffer, size_t size);

/// The line holds the current text itself.
inline constexpr line_text_maker PLAIN_VALUE = nullptr;

/// An entry of a parameter table. A current text that is formatted at run time is kept in the entry itself.
struct setting_entry : line_entry {
    line_text_maker line_text;
    char text[setting_text_size];  ///< the default until a value takes its place
};

/// A list of algorithms; the second text is the list as filtered in FIPS mode.
struct algorithm_entry {
    const char* default_text;
    const char* current;
    const char* second_current;
    const char* keyword;
    uint32_t allvrf;
    char text[algorithm_text_size];            ///< what `current` points at unless that is a static text
    char fips_text[fips_algorithm_text_size];  ///< what `second_current` points at if the list was filtered
};

#endif
