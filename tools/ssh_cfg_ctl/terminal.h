/// The terminal.
#ifndef SSH_CFG_CTL_TERMINAL_H
#define SSH_CFG_CTL_TERMINAL_H

#include <cstddef>

/// The line width of standard output: the environment variable COLUMNS, else the terminal's width; 0, which means
/// unlimited, for files and pipes.
size_t ctl_output_width();

/// The line width of standard error, which is a terminal.
size_t ctl_error_width();

#endif
