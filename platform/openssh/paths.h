/// Every absolute path that the launchers of the SSH server and the client use.
#ifndef OPENSSH_PATHS_H
#define OPENSSH_PATHS_H

#include <string>

#include "openssh/wrapper/session_command.h"

namespace openssh {

/// The defaults are those of the installed system; tests replace them.
struct launcher_paths {
    /// Holds the translated files and the cache of algorithm names. Only root has access; created if missing.
    std::string state_directory = "/run/ssh_cfg_agent/openssh";
    /// sshd refuses to start without it.
    std::string privilege_separation_directory = "/run/sshd";
    /// Where the agent keeps its server files; their translations are named after the file name alone.
    std::string agent_directory = "/var/opt/norvo/norvossh/";
    /// Directives that an administrator adds to the agent's server files, and where those that were last accepted are kept,
    /// which only root may see.
    std::string local_directory = "/etc/ssh_cfg_agent/sshd.d";
    std::string accepted_local_directory = "/var/lib/ssh_cfg_agent/local_directives";
    std::string ssh = "/usr/bin/ssh";
    std::string nft = "/usr/sbin/nft";
    /// Network namespaces by name.
    std::string namespace_directory = "/run/netns/";
    /// A link to the stock server. sshd uses the last component of the name it is run by as its PAM service name, and
    /// needs an absolute path to execute itself for each connection.
    std::string sshd = "/pkg/libexec/norvosshd";
    /// Prints the key that the key store holds for the user named by its argument; sshd is told to use it if it is
    /// installed.
    std::string user_keys_program = "/usr/libexec/ssh_cfg_agent/authorized_keys";
    /// The wrapper of a server's sessions: loaded into sshd, executed for each session.
    std::string session_hook = openssh::session_hook;
    std::string session_wrapper = openssh::session_wrapper;
    std::string netconf_program = openssh::netconf_program;
    /// OpenSSH's SFTP server, and the copy of it that users can execute but not read.
    std::string stock_sftp_server = "/usr/lib/openssh/sftp-server";
    std::string sftp_server = "/pkg/bin/sftp-server";
    /// Loaded into sshd and ssh, so that they report their sessions.
    std::string session_reporter = "/pkg/lib/libssh_session_reporter.so";
    /// The agent's files for the client and for the default server; the latter says whether FIPS mode is on.
    std::string client_file = "/var/opt/norvo/norvossh/ssh_config";
    std::string default_server_file = "/var/opt/norvo/norvossh/sshd_config";
    /// The name of the client's process.
    std::string client_name = "/pkg/bin/ssh_csm";
    /// Each user's runtime directory is here, named by the user's number.
    std::string user_runtime_directories = "/run/user/";
    std::string temporary_directory = "/tmp";
    const char* system_log = "/dev/log";
};

}  // namespace openssh

#endif
