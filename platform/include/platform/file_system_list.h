/// The platform's file systems.
#ifndef PLATFORM_FILE_SYSTEM_LIST_H
#define PLATFORM_FILE_SYSTEM_LIST_H

#ifdef __cplusplus
extern "C" {
#endif

/// A null-terminated array of names, owned by the platform and valid until the next call; null on failure.
const char* const* file_system_list_get(void);

#ifdef __cplusplus
}
#endif

#endif
