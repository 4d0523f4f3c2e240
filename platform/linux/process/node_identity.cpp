#include "platform/node_identity.h"

#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include "linux/process/platform_config.h"
#include "linux/reporting/log_message_internal.h"

platform_status node_identity_id(uint32_t* node_id) {
    if (node_id == nullptr) {
        return EINVAL;
    }
    try {
        platform_config config = {};
        std::vector<std::string> problems;
        // A fault in the file was already reported when the role was read from it.
        platform_config_read(config, problems);
        *node_id = config.node_number;
        return PLATFORM_OK;
    } catch (const std::exception&) {
        return ENOMEM;
    }
}

/// A stock Linux system knows only one node, itself: its name is the host's, without the domain.
platform_status node_identity_name(uint32_t node_id, char* name, size_t size) {
    if (name == nullptr || size == 0) {
        return EINVAL;
    }
    uint32_t own_id = 0;
    const platform_status status = node_identity_id(&own_id);
    if (status != PLATFORM_OK) {
        return status;
    }
    if (node_id != own_id) {
        return ENOENT;
    }
    char host[HOST_NAME_MAX + 1] = {};
    if (gethostname(host, sizeof host - 1) != 0) {
        return static_cast<platform_status>(errno);
    }
    const size_t length = strnlen(host, strcspn(host, ".") < size ? strcspn(host, ".") : size - 1);
    memcpy(name, host, length);
    name[length] = '\0';
    return PLATFORM_OK;
}
