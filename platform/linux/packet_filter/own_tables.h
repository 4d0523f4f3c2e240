/// The platform's own tables in the VRFs' packet filters: management-plane protection, and the limit of new connections.
#ifndef LINUX_PACKET_FILTER_OWN_TABLES_H
#define LINUX_PACKET_FILTER_OWN_TABLES_H

#include "platform/enforcement.h"
#include "platform/event_manager.h"

/// Compares the tables with what protection has been asked for and with what the servers were started with, and with
/// `repair` makes those that differ again. Reports "protection VRF" and "connection limit VRF". Returns how many
/// differences remain. Throws std::bad_alloc.
int own_tables_compare(bool repair, enforcement_difference_sink sink, void* sink_context);

/// Repairs what an earlier process left, and has every later comparison include these tables.
platform_status own_tables_start(struct event_manager* manager);
void own_tables_stop();

#endif
