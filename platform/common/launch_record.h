/// What the server of a VRF was last started with. The launcher writes it at each start; platforms read it.
///
/// The record is a text file, /run/ssh_cfg_agent/openssh/sshd_config_NAME~launch, which only root can read. Each line is a key, a
/// blank and a value. Values contain no control characters; keys that the reader does not know are ignored.
///
///     in_use last_good
///     process 4711
///     server_file /var/opt/norvo/norvossh/sshd_config_red
///     config /run/ssh_cfg_agent/openssh/sshd_config_red
///     config_stamp 65024 1837 1700000000.123456789
///     connections_per_minute 60
///     ports 22, 830
///     reason sshd rejects the file (exit status 255): line 12: Bad configuration option
///     local last_accepted
///     local_problem /etc/ssh_cfg_agent/sshd.d/red.conf, line 3: "Port 23" refused: ...
///     not_in_force the limit of 60 new connections per minute is not in force: ...
#ifndef PLATFORM_COMMON_LAUNCH_RECORD_H
#define PLATFORM_COMMON_LAUNCH_RECORD_H

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/status.h"

enum class launch_file {
    none,       ///< the server was not started
    current,    ///< made from the agent's server file as it was at the start
    last_good,  ///< made from an earlier one, because the current one cannot be used
};

/// The local directives in the server's file.
enum class launch_local {
    none,           ///< no file has any
    current,        ///< those of the files at the start
    last_accepted,  ///< earlier ones, because the files' are refused
    left_out,       ///< none, because the files' are refused and there are no earlier ones
};

struct launch_record {
    launch_file in_use = launch_file::none;
    /// The launcher's process, which has become the server. A record with another process than the running server's
    /// describes a different server.
    pid_t process = 0;
    std::string server_file;              ///< the agent's file
    std::string config;                   ///< sshd's file; empty if the server was not started
    std::string config_stamp;             ///< launch_file_stamp() of sshd's file at the start
    uint32_t connections_per_minute = 0;  ///< the limit of new connections; 0 in a record of a launcher without it
    std::string ports;                    ///< to which the limit applies
    std::string reason;                   ///< why the current file is not in use; empty if it is
    launch_local local = launch_local::none;
    std::vector<std::string> local_problems;  ///< why not all of the files' directives are in force, one sentence each
    std::vector<std::string> not_in_force;    ///< further settings that could not be carried out, one sentence each
};

/// The record's file, named after the server's translated file.
std::string launch_record_path(std::string_view config);

/// A copy of the agent's file as it was when the current file was made from it; named after the server's translated file.
std::string launch_source_path(std::string_view config);

/// What changes when anybody writes to a file, replaces it or changes its owner or mode; empty if it cannot be examined.
std::string launch_file_stamp(const std::string& path);

std::string launch_record_format(const launch_record& record);

/// Parses a record's text. Returns false, leaving `record` unchanged, if it has no valid `in_use` line.
bool launch_record_parse(std::string_view text, launch_record& record);

/// Reads the record of a VRF's server. ENOENT if the server was never started since the machine was booted, EBADMSG for
/// a damaged record, or another errno value; `record` is then unchanged.
platform_status launch_record_read(std::string_view vrf_name, launch_record& record);

#endif
