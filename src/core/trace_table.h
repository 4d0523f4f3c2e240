/// The trace points of all modules.
#ifndef CORE_TRACE_TABLE_H
#define CORE_TRACE_TABLE_H

#include "core/trace.h"

/// Every trace point of the agent, in the order of the modules' lists.
extern const trace_table agent_trace_table;

#endif
