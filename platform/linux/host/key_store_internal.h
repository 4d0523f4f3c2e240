/// Users' public keys for the rest of the Linux platform, which lists and changes them.
///
/// Each user's keys are one record in the private part of the datastore, with a copy in a file for sshd. A user has one key
/// that comes from an item of the configuration, or several that have been imported (from the exec mode, with the operator's
/// tool). A user's imported keys are one value in commits; neither way of adding keys changes keys of the other origin.
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

/// The valid keys of a user. DATASTORE_NO_SUCH_ITEM if there are none, EBADMSG if the record is damaged.
platform_status key_store_find(std::string_view user, key_record& record);

/// All keys that count, in byte order of the users. Damaged records are logged and left out.
platform_status key_store_list(std::vector<key_store_entry>& entries);

/// Makes the stored form of a user's imported keys, of which there must be at least one. A key that the user has already,
/// with the same options and comment, keeps its time; if nothing differs, the result is equal to the stored value. Returns
/// EINVAL for an invalid user name.
platform_status key_store_make_import(std::string_view user, const std::vector<authorized_key>& keys,
                                      std::string& bytes);

/// Returns the path of a user's imported keys in commits and dumps.
std::string key_store_import_path(std::string_view user);

/// Lets commits change imported keys. A commit may replace a user's configured key by an imported one, or the other way
/// round, but a user cannot have keys of both origins.
void key_imports_start();
void key_imports_stop();

#endif
