/// Users' public keys for the rest of the Linux platform, which lists and changes them.
///
/// Each user's key is one record in the private part of the datastore, with a copy in a file for sshd. A key comes from an
/// item of the configuration, or it has been imported (from the exec mode, with the operator's tool). An imported key is a
/// value of its own in commits; neither way of adding a key changes a key of the other origin.
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

/// Makes the stored form of an imported key from its text. If the user has the same imported key already, its time is kept,
/// so that the result is equal to the stored value. Returns one of the statuses of platform/key_store.h for an invalid key,
/// and EINVAL for an invalid user name.
platform_status key_store_make_import(std::string_view user, std::string_view text, std::string& bytes);

/// Returns the path of a user's imported key in commits and dumps.
std::string key_store_import_path(std::string_view user);

/// Lets commits change imported keys. A commit may replace a user's configured key by an imported one, or the other way
/// round, but a user cannot have both.
void key_imports_start();
void key_imports_stop();

#endif
