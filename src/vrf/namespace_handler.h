/// Reacts to the creation and deletion of VRFs' network namespaces.
#ifndef VRF_NAMESPACE_HANDLER_H
#define VRF_NAMESPACE_HANDLER_H

#include "platform/event_manager.h"

/// Handles a namespace message. Always replies with 24 zero bytes.
void ssh_proxy_nns_handler(event_message* message, void* context);

#endif
