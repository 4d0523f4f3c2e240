/// Trace points: access lists.
#ifndef ACL_TRACE_POINTS_H
#define ACL_TRACE_POINTS_H

#include "core/trace.h"

// clang-format off
#define ACL_TRACE_POINTS(ERROR, EVENT)                                                                    \
    ERROR(0x600, acl, directory, "rule folder not created", "path", "status")                             \
    ERROR(0x601, acl, file, "rule file not written or applied", "problem", "status")                      \
    ERROR(0x602, acl, load, "rules of the VRF not loaded", "vrf", "kind", "status")                       \
    ERROR(0x603, acl, bind, "tree of access lists not bound", "tree", "status")                           \
    ERROR(0x604, acl, list, "access lists not read", "path", "status")                                    \
    ERROR(0x605, acl, get_list, "access list not found", "vrf", "list", "status")                         \
    ERROR(0x606, acl, register, "changes of the access list not registered for", "vrf", "list", "status") \
    ERROR(0x607, acl, notice, "empty notice of a changed access list")                                    \
    EVENT(0x608, acl, changed, "access list changed", "list", "present")                                  \
    EVENT(0x609, acl, attached, "access list attached to the VRF", "vrf", "list", "kind")                 \
    EVENT(0x60a, acl, detached, "access list detached from the VRF", "vrf", "kind")
// clang-format on

ACL_TRACE_POINTS(DEFINE_TRACE_ERROR, DEFINE_TRACE_EVENT)

#endif
