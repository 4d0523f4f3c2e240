#include <cerrno>
#include <new>

#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/state.h"

// Values as stored by the engine: under the configuration's paths, and under the platform's own, private keys.

namespace {

bool is_private(std::string_view key) {
    return !key.empty() && key[0] != '/';
}

}  // namespace

platform_status datastore_stored_get(std::string_view path, datastore_stored& value) {
    const datastore_state& state = the_datastore();
    return state.store == nullptr ? DATASTORE_UNAVAILABLE : state.engine->get(state.store, path, value);
}

platform_status datastore_stored_next(std::string_view prefix, std::string_view after, std::string& path,
                                      datastore_stored& value) {
    const datastore_state& state = the_datastore();
    if (state.store == nullptr) {
        return DATASTORE_UNAVAILABLE;
    }
    const bool from_start = after < prefix;
    std::string found;
    datastore_stored found_value;
    const platform_status status =
        state.engine->next(state.store, from_start ? prefix : after, from_start, found, found_value);
    if (status != PLATFORM_OK) {
        return status;
    }
    if (found.compare(0, prefix.size(), prefix) != 0) {
        return DATASTORE_NO_SUCH_ITEM;
    }
    path = std::move(found);
    value = std::move(found_value);
    return PLATFORM_OK;
}

platform_status datastore_private_get(std::string_view key, std::string& bytes) try {
    datastore_stored stored;
    if (!is_private(key)) {
        return EINVAL;
    }
    const platform_status status = datastore_stored_get(key, stored);
    if (status == PLATFORM_OK) {
        bytes = std::move(stored.bytes);
    }
    return status;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

platform_status datastore_private_put(std::string_view key, std::string_view bytes) try {
    const datastore_state& state = the_datastore();
    if (!is_private(key)) {
        return EINVAL;
    }
    if (state.store == nullptr) {
        return DATASTORE_UNAVAILABLE;
    }
    return state.engine->put(state.store, key, {0, std::string(bytes)});
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

platform_status datastore_private_delete(std::string_view key) {
    const datastore_state& state = the_datastore();
    if (!is_private(key)) {
        return EINVAL;
    }
    return state.store == nullptr ? DATASTORE_UNAVAILABLE : state.engine->erase(state.store, key);
}

platform_status datastore_private_next(std::string_view prefix, std::string_view after, std::string& key,
                                       std::string& bytes) try {
    datastore_stored stored;
    if (!is_private(prefix)) {
        return EINVAL;
    }
    const platform_status status = datastore_stored_next(prefix, after, key, stored);
    if (status == PLATFORM_OK) {
        bytes = std::move(stored.bytes);
    }
    return status;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}
