/// The watch on the network namespaces.
#ifndef LINUX_VRF_NAMESPACE_WATCH_H
#define LINUX_VRF_NAMESPACE_WATCH_H

#include <string>
#include <vector>

#include "platform/event_manager.h"
#include "platform/status.h"

/// Where `ip netns` keeps the namespaces.
inline constexpr char namespace_directory[] = "/run/netns";

/// Whether /run/netns/`name` is a network namespace by now. `ip netns add` makes a plain file first and attaches the
/// namespace to it afterwards.
bool namespace_is_attached(const std::string& name);

/// The VRFs' namespaces ("vrf-" and a VRF name) that exist now, in byte order.
std::vector<std::string> namespace_list();

/// Begins to watch: from now on every VRF namespace that appears or goes is announced with NAMESPACE_MESSAGE through
/// `manager`. Those that exist already are not announced. EALREADY when the watch is on.
platform_status namespace_watch_start(struct event_manager* manager);

/// Ends the watch and discards undelivered announcements. Harmless if there is no watch.
void namespace_watch_stop();

#endif
