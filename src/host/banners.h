/// Banners: the file that the servers show before login, and the message of the day.
#ifndef HOST_BANNERS_H
#define HOST_BANNERS_H

#include <cstdint>

#include "platform/datastore.h"

/// Exit statuses of the process when a banner file cannot be created; the restarted process tries again.
enum banner_exit_status : int { EXIT_BANNER_FILE = -25, EXIT_AAA_BANNER_FILE = -30 };

/// The configured banner of a kind (platform/banner_service.h) without its delimiters: the text between its first
/// character and the last occurrence of the same character, or everything after the first if it does not occur again.
/// Null if that is empty. The caller frees it.
char* get_banner_msg(uint32_t kind);

/// Append a text and a line feed to the banner file or to the message of the day. Return 0, or -1 for a missing text or
/// if the file cannot be written; failures are logged.
int writeToBanner(const char* text);
int writeToAaaBanner(const char* text);

/// A banner has changed: rebuilds the banner file and makes the servers refer to it unless it is empty. Exits with
/// EXIT_BANNER_FILE if the file cannot be created.
void banner_config_handler(const datastore_notification* notification, void* context);

/// The AAA banner has changed: rebuilds or removes the message of the day. Exits with EXIT_AAA_BANNER_FILE if the file
/// cannot be created.
void aaa_banner_config_handler(const datastore_notification* notification, void* context);

/// Applies the existing banners as if they had just been set, because only changes are notified. Without a banner no
/// file is touched.
void apply_present_banners();

/// What is wrong with the banner file, or with the message of the day; null if nothing is. Without an AAA banner a message
/// of the day that the agent has not written is right, because it is the machine's own. May throw std::bad_alloc.
const char* banner_file_difference();
const char* aaa_banner_file_difference();

/// Build the file again, or remove it. Unlike the handlers, they return if it cannot be created.
void write_banner_file_again();
void write_aaa_banner_file_again();

#endif
