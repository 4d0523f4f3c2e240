/// The server and the client as seen by the algorithm appliers: state, texts and the file to write.
#ifndef APPLIERS_ALGORITHM_SIDE_H
#define APPLIERS_ALGORITHM_SIDE_H

#include <cstddef>
#include <cstdint>

#include "config_files/parameter_table.h"
#include "core/trace.h"
#include "fips/list_filter.h"

inline constexpr size_t kex_list_size = algorithm_text_size;

/// Bits of a legacy cipher mask. 3DES is refused, so its bit is never set.
enum legacy_cipher : uint32_t { LEGACY_AES_CBC = 1, LEGACY_3DES = 2 };

enum mac : size_t { MAC_SHA1, MAC_SHA256, MAC_SHA512, mac_count };

/// Writes a keyword's line into the side's files. `value` may be null with the delete bit. Returns 0 or -1.
using side_writer = int (*)(uint32_t event, const char* keyword, const char* value);

/// Formats of debug prints, and the function names in them.
struct algorithm_texts {
    const char* kex_event;
    const char* kex_function;
    const char* kex_question;
    const char* cipher_event;
    const char* cipher_question;
    const char* legacy_event;
    const char* legacy_function;
    const char* legacy_question;
    const char* mac_events[mac_count];
    const char* old_macs;
    const char* proposed_macs;
    const char* mac_not_added;
};

struct algorithm_trace_points {
    trace_event_point kex;
    trace_event_point cipher;
    trace_event_point legacy_cipher;
    trace_event_point mac;
};

struct algorithm_side {
    algorithm_entry* kex;
    algorithm_entry* ciphers;
    line_entry* macs;
    char* kex_list;     ///< kex_list_size bytes; the configured key exchanges
    char* cipher_base;  ///< algorithm_list_size bytes; the configured ciphers, or the default
    char* cipher_list;  ///< algorithm_list_size bytes; the base and the enabled legacy ciphers
    char* mac_list;     ///< algorithm_list_size bytes; the MACs that are not disabled
    uint32_t* legacy_cipher_mask;
    uint8_t* hmac_disabled;  ///< a flag for each MAC
    side_writer write;
    algorithm_trace_points trace;
    algorithm_texts text;
};

extern const algorithm_side server_side;
extern const algorithm_side client_side;

#endif
