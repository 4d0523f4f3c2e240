/// Trustpoints in force: the host's certificate, and the authorities whose user certificates are accepted.
#ifndef CONFIG_FILES_TRUSTPOINTS_H
#define CONFIG_FILES_TRUSTPOINTS_H

#include <cstddef>
#include <cstdint>

inline constexpr size_t trustpoint_size = 128;  ///< at most 127 characters and NUL
inline constexpr uint32_t user_trustpoint_max = 10;

/// Empty if none is configured.
extern char host_trustpoint[trustpoint_size];

/// The first `user_trustpoint_count` slots hold names, the others are empty.
extern char user_trustpoints[user_trustpoint_max][trustpoint_size];
extern uint32_t user_trustpoint_count;

/// Joins the names in slot order with "," into `text` (`size` bytes), cut at its end. Returns whether all of them
/// fitted.
bool join_user_trustpoints(char* text, size_t size);

#endif
