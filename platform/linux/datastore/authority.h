/// Which items only root may change.
#ifndef LINUX_DATASTORE_AUTHORITY_H
#define LINUX_DATASTORE_AUTHORITY_H

#include <cstdint>
#include <string>
#include <string_view>

/// On whose behalf a commit is made.
enum class datastore_authority : uint8_t {
    administrator,  ///< a user who may change the configuration, but must not become root by it
    root
};

/// The item of a user's public key begins with this, then follow the user's name and a slash.
inline constexpr std::string_view datastore_user_items = "/cfg/gl/crypto/ssh/server/cmn/username/";

/// The path of a user's imported key begins with this, then follows the user's name.
inline constexpr std::string_view datastore_imported_keys = "/keys/";

/// Why only root may change a user's key: a key for user ID 0 makes whoever has it root. Empty for ordinary users. May
/// throw std::bad_alloc.
std::string datastore_key_reserved(const std::string& user);

/// The same for the item or imported key at `path`: empty unless it belongs to the key of such a user. May throw std::bad_alloc.
std::string datastore_item_reserved(std::string_view path);

#endif
