/// Events about logins to the servers, which sshd's privileged processes send to the journal and to the agent.
///
/// An event is an entry in the journal's native format. None of its values contains a line break.
#ifndef OPENSSH_REPORTER_LOGIN_EVENT_H
#define OPENSSH_REPORTER_LOGIN_EVENT_H

/// Where the agent receives them, for its watchers; only root can send there.
inline constexpr char login_event_socket[] = "/run/ssh_cfg_agent/login_events";

/// An event has at most so many bytes.
inline constexpr unsigned login_event_size_max = 2048;

/// What has happened: the message's ID (journald's MESSAGE_ID), and the value of SSH_CFG_EVENT.
struct login_event_kind {
    const char* message_id;
    const char* name;
};

inline constexpr login_event_kind login_event_failed = {"57bf9bef7e7f4f33af0ee093e0c74180", "login-failed"};
inline constexpr login_event_kind login_event_login = {"ceb4810a4e284fee9b63933d37a647e3", "login"};
inline constexpr login_event_kind login_event_logout = {"43fd807dd1924ef1a3026dfbf78c4fe3", "logout"};

// Names of an event's fields. Fields without a value are left out.
#define LOGIN_EVENT_NAME "SSH_CFG_EVENT"
#define LOGIN_EVENT_VRF "SSH_CFG_VRF"
#define LOGIN_EVENT_USER "SSH_CFG_USER"      // as the client named it, control characters in octal
#define LOGIN_EVENT_SOURCE "SSH_CFG_SOURCE"  // the address
#define LOGIN_EVENT_PORT "SSH_CFG_PORT"
#define LOGIN_EVENT_METHOD "SSH_CFG_METHOD"  // one, or those that were tried, separated by commas
#define LOGIN_EVENT_REASON "SSH_CFG_REASON"
#define LOGIN_EVENT_DETAIL "SSH_CFG_DETAIL"
#define LOGIN_EVENT_KEY "SSH_CFG_KEY"            // type and fingerprint of the accepted key, or of the last refused one
#define LOGIN_EVENT_REFUSED "SSH_CFG_REFUSED"    // how many tries were refused
#define LOGIN_EVENT_DURATION "SSH_CFG_DURATION"  // of the session, in seconds

#endif
