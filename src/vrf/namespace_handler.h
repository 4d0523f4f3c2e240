/// What the agent does when a VRF's network namespace appears or goes.
#ifndef VRF_NAMESPACE_HANDLER_H
#define VRF_NAMESPACE_HANDLER_H

#include "platform/event_manager.h"

/// Handler of the namespace message. Always replies with 24 zero bytes.
void ssh_proxy_nns_handler(event_message* message, void* context);

#endif
