/// Banners: the file that the servers show before login, and the message of the day.
#ifndef HOST_BANNERS_H
#define HOST_BANNERS_H

#include <cstdint>

#include "platform/datastore.h"

/// What the process ends with when a banner's file cannot be made anew, so that its restart tries again.
enum banner_exit_status : int { EXIT_BANNER_FILE = -25, EXIT_AAA_BANNER_FILE = -30 };

/// The configured banner of a kind (platform/banner_service.h) without its delimiters: what stands between the text's
/// first character and the last one that equals it, or all behind the first when it does not come again. Null when
/// there is nothing. The caller frees it.
char* get_banner_msg(uint32_t kind);

/// Append a text and a line feed to the banner file, or to the message of the day. 0, or -1 for a missing text and when
/// the file cannot be written; reported.
int writeToBanner(const char* text);
int writeToAaaBanner(const char* text);

/// A banner has changed: builds the banner file anew and lets the servers name it as long as there is something in it.
/// Ends the process with EXIT_BANNER_FILE when the file cannot be made.
void banner_config_handler(const datastore_notification* notification, void* context);

/// The AAA banner has changed: builds the message of the day anew, or removes it. Ends the process with
/// EXIT_AAA_BANNER_FILE when the file cannot be made.
void aaa_banner_config_handler(const datastore_notification* notification, void* context);

/// Builds what the banners that there are call for, as if they had just been set: notices tell of changes only. Without a
/// banner nothing is touched.
void apply_present_banners();

#endif
