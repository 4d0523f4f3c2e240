/// The platform's configuration file, /etc/ssh_cfg_agent/platform.conf.
///
/// Lines of the form "key = value"; blank lines and lines that begin with '#' are ignored.
///
///     role = primary | standby     a standby waits until the file says primary (default: primary)
///     node_number = 0 ... 4294967294      this node's number in operational records (default: 0)
///     commits_kept = 1 ... 10000      how many commits the history keeps (default: 100)
///
/// A line that cannot be used is reported and its setting keeps the default: a router that a typing mistake keeps from
/// starting its SSH servers may have no other way in.
#ifndef LINUX_PROCESS_PLATFORM_CONFIG_H
#define LINUX_PROCESS_PLATFORM_CONFIG_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/status.h"

/// A role that waits until it becomes primary.
enum { PROCESS_ROLE_STANDBY = 2 };

struct platform_config {
    uint32_t role;  ///< PROCESS_ROLE_
    uint32_t node_number;
    bool role_is_stated;  ///< the file has a usable line for the role
    uint32_t commits_kept;
};

/// Reads the file. `config` always comes out whole; `problems` receives one line for people per line that cannot be used.
/// A missing file is no problem and gives the defaults. Returns 0, ENOENT for the missing file, or the errno value of a
/// file that cannot be read (which is among the problems too).
platform_status platform_config_read(platform_config& config, std::vector<std::string>& problems);

#endif
