#include "core/agent_state.h"

#include <unistd.h>

#include "core/paths.h"

agent_state agent_handles;

bool datastore_client_available() {
    static const bool available = access(paths::datastore_library, R_OK) == 0;
    return available;
}

platform_status bind_datastore(const char* path, datastore_binding** binding) {
    return datastore_client_available() ? datastore_bind(path, binding) : DATASTORE_UNAVAILABLE;
}
