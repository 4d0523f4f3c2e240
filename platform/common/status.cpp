#include "platform/status.h"

#include <cstdio>
#include <cstring>

#include "platform/key_store.h"

namespace {

struct status_text {
    platform_status status;
    const char* text;
};

constexpr status_text own_texts[] = {
    {PLATFORM_OK, "Success"},
    {DATASTORE_NO_SUCH_ITEM, "No such item"},
    {DATASTORE_NO_DATA, "No data"},
    {DATASTORE_NO_SUCH_LIST, "No such list"},
    {DATASTORE_NO_SUCH_TREE, "No such tree"},
    {DATASTORE_NOTHING_TO_ENCODE, "Nothing to encode"},
    {DATASTORE_NO_HANDLER, "No handler for the item"},
    {DATASTORE_UNAVAILABLE, "The datastore is not available on this node"},
    {TUPLE_MALFORMED, "Malformed value tuple"},
    {RECORD_MALFORMED, "Malformed record or schema"},
    {RECORD_UNKNOWN, "Record type is not registered"},
    {KEY_NOT_BASE64, "The key is not valid base64"},
    {KEY_CUT_OFF, "The key is truncated"},
    {KEY_TRAILING_BYTES, "Extra bytes follow the end of the key"},
    {KEY_OTHER_TYPE, "The key type is not ssh-rsa"},
    {KEY_TYPES_DIFFER, "The key is labelled ssh-rsa but contains a key of another type"},
    {KEY_WRONG_EXPONENT, "The key's exponent is not an odd number from 3 to 2^64 - 1"},
    {KEY_WRONG_MODULUS, "The key's modulus is not an odd positive number"},
    {KEY_TOO_SMALL, "The key has fewer than 1024 bits"},
    {KEY_TOO_LARGE, "The key takes more than 1024 bytes in DER form"},
    {KEY_OTHER_ORIGIN, "The user already has a key from another source"},
};

constexpr platform_status errno_highest = 4095;

thread_local char text_buffer[128];

}  // namespace

const char* platform_status_text(platform_status status) {
    for (const status_text& row : own_texts) {
        if (row.status == status) {
            return row.text;
        }
    }
    if (status <= errno_highest) {
        return strerror_r(static_cast<int>(status), text_buffer, sizeof text_buffer);
    }
    snprintf(text_buffer, sizeof text_buffer, "Unknown status 0x%x", status);
    return text_buffer;
}
