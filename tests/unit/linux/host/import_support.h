/// Helpers for tests that need imported keys.
#ifndef UNIT_LINUX_HOST_IMPORT_SUPPORT_H
#define UNIT_LINUX_HOST_IMPORT_SUPPORT_H

#include <cerrno>
#include <optional>
#include <string>

#include "linux/datastore/datastore_internal.h"
#include "linux/host/key_store_internal.h"
#include "unit/linux/platform_test_support.h"

namespace key_test {

/// Creates the users root, al, alice and bob, and lets commits change imported keys.
inline void start_imports() {
    platform_test::write_file("/etc/passwd",
                              "root:x:0:0::/root:/bin/sh\nal:x:1002:1002::/home/al:/bin/sh\n"
                              "alice:x:1000:1000::/home/alice:/bin/sh\nbob:x:1001:1001::/home/bob:/bin/sh\n");
    key_imports_start();
}

/// The stored form of the keys in an authorized_keys file. Returns EINVAL if the text or the name is invalid.
inline platform_status make_import(const std::string& user, const std::string& text, std::string& bytes) {
    std::vector<authorized_key> keys;
    std::string refusal;
    return authorized_keys_read(text, keys, refusal) ? key_store_make_import(user, keys, bytes)
                                                     : platform_status{EINVAL};
}

/// The change of a commit after which the user has the keys in an authorized_keys file. The text must be valid.
inline datastore_change_request import_change(const std::string& user, const std::string& text) {
    std::string bytes;
    EXPECT_EQ(make_import(user, text, bytes), PLATFORM_OK);
    return {key_store_import_path(user), std::nullopt, false, bytes};
}

/// Imports keys by a commit of its own, in place of the previous ones.
inline platform_status import_key(const std::string& user, const std::string& text) {
    std::string bytes;
    const platform_status status = make_import(user, text, bytes);
    return status == PLATFORM_OK ? datastore_commit({import_change(user, text)}, false).status : status;
}

inline platform_status delete_import(const std::string& user) {
    return datastore_commit({{key_store_import_path(user), std::nullopt}}, false).status;
}

}  // namespace key_test

#endif
