/// Users' public keys for the rest of the Linux platform, which lists and changes them.
///
/// Each user's key is one record in the private part of the datastore, with a copy in a file for sshd. A key comes from
/// the configuration or, through the operator's tool, from the exec mode; neither may change a key of the other origin.
#ifndef LINUX_HOST_KEY_STORE_INTERNAL_H
#define LINUX_HOST_KEY_STORE_INTERNAL_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/key_store.h"
#include "user_keys/key_record.h"

struct key_store_entry {
    std::string user;
    key_record record;
};

/// Makes the files for sshd what the records say, where a crash has come between the two. To be called when the loop is
/// reached, with the stored configuration applied. A failure is logged.
void key_store_start();

/// The valid key of a user. DATASTORE_NO_SUCH_ITEM if there is none, EBADMSG if the record is damaged.
platform_status key_store_find(std::string_view user, key_record& record);

/// All keys that count, in byte order of the users. Damaged ones are logged and left out.
platform_status key_store_list(std::vector<key_store_entry>& entries);

/// The line for sshd from a record. EBADMSG if the record holds no key.
platform_status key_store_line(const key_record& record, std::string& line);

/// Stores the key in `text` for a user, as added from the exec mode, in place of one that was added so before.
/// KEY_OTHER_ORIGIN if the user's key comes from the configuration. `changed` may be null; otherwise `*changed` is set to
/// whether the user had a different key or none.
platform_status key_store_import(std::string_view user, std::string_view text, bool* changed = nullptr);

/// Removes a user's key that was added from the exec mode. DATASTORE_NO_SUCH_ITEM if the user has no key,
/// KEY_OTHER_ORIGIN if it comes from the configuration.
platform_status key_store_delete(std::string_view user);

#endif
