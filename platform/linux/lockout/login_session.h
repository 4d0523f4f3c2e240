/// The SSH session through which an operator has reached the control socket.
#ifndef LINUX_LOCKOUT_LOGIN_SESSION_H
#define LINUX_LOCKOUT_LOGIN_SESSION_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "linux/access_lists/rule_evaluation.h"
#include "openssh/reporter/session_facts.h"

/// A session of one of the router's servers, and how its login was negotiated. Unknown texts are empty.
struct login_session {
    std::string vrf_name;
    rule_connection connection;
    std::string source;  ///< the source address as text
    std::string user;
    std::string method;           ///< as in the session records, such as "ed25519-pubkey"
    std::string key_type;         ///< as sshd logs it, such as "ED25519"
    std::string key_fingerprint;  ///< "SHA256:..."
    std::string kex;
    std::string host_key;
    std::string in_cipher;
    std::string out_cipher;
    std::string in_mac;
    std::string out_mac;
};

/// Finds the session of a process among its ancestors. Believes only pages that sshd's monitor has written into the folder
/// that is closed to everyone but root. Returns nothing if there is none, for instance because the process was started on
/// the console. Throws std::bad_alloc.
std::optional<login_session> login_session_of(pid_t process);

/// For tests: makes `find` answer in place of login_session_of. An empty function ends that.
void login_session_divert(std::function<std::optional<login_session>(pid_t)> find);

/// Finds the nearest ancestor of a process, or the process itself, that runs the program `server` as root and has a page.
/// Returns what the page says, or nothing.
std::optional<openssh::session_facts> login_facts_of(pid_t process, const std::string& server);

/// Reads a line of /proc/PID/net/tcp or tcp6. Returns the connection if it is established and its socket is one of
/// `sockets`, otherwise nothing. An IPv4 connection of an IPv6 socket is returned as an IPv4 connection.
std::optional<rule_connection> login_connection_in(std::string_view line, const std::set<uint64_t>& sockets);

#endif
