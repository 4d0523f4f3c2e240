/// Banner service: texts shown before and after login, with their tokens expanded.
#ifndef PLATFORM_BANNER_SERVICE_H
#define PLATFORM_BANNER_SERVICE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { BANNER_MESSAGE_OF_THE_DAY = 2, BANNER_LOGIN = 3 };

/// The configured banner of a kind, with its delimiter at both ends; null when there is none. The caller frees it.
char* banner_service_configured(uint32_t kind);

/// The platform's own banner of a kind, without delimiters; null when there is none. The caller frees it.
char* banner_service_platform(uint32_t kind);

/// The AAA banner, with its delimiter at both ends; null when there is none. The caller frees it.
char* banner_service_aaa(void);

#ifdef __cplusplus
}
#endif

#endif
