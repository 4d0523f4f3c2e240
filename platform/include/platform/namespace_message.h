/// The message that announces network namespaces.
#ifndef PLATFORM_NAMESPACE_MESSAGE_H
#define PLATFORM_NAMESPACE_MESSAGE_H

#include <stdint.h>

enum {
    NAMESPACE_MESSAGE = 0x50D8085,  ///< message code
    NAMESPACE_CREATED = 2,
    NAMESPACE_DELETED = 3,
    NAMESPACE_REPLY_SIZE = 24  ///< bytes of the reply; all zero when the message was handled
};

/// Body of the message.
struct namespace_message {
    uint32_t code;   ///< NAMESPACE_CREATED or NAMESPACE_DELETED
    char name[256];  ///< "vrf-" and the VRF's name, NUL-terminated
};

#endif
