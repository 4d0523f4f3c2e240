/// The report of a rehearsal as text, as the rehearsing process sends it to the agent.
#ifndef LINUX_REHEARSAL_REPORT_H
#define LINUX_REHEARSAL_REPORT_H

#include <string>

#include "linux/datastore/rehearsal.h"

/// The report as JSON text, and back. Reading fails only for texts that rehearsal_report_write has not made.
std::string rehearsal_report_write(const rehearsal_report& report);
bool rehearsal_report_read(const std::string& text, rehearsal_report& report);

#endif
