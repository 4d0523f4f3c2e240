/// Where the output goes.
#ifndef SSH_CFG_CTL_TERMINAL_H
#define SSH_CFG_CTL_TERMINAL_H

#include <cstddef>

/// Columns that a line of standard output has: what the environment's COLUMNS says, else the terminal's width; 0, which
/// bounds nothing, for files and pipes.
size_t ctl_output_width();

#endif
