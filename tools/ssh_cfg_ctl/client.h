/// The tool's end of the control socket.
#ifndef SSH_CFG_CTL_CLIENT_H
#define SSH_CFG_CTL_CLIENT_H

#include <string>

#include "control_protocol/answer.h"
#include "ssh_cfg_ctl/progress.h"

struct ctl_connection_settings {
    std::string socket_path;
    unsigned timeout;   ///< seconds without any response
    bool tell_waiting;  ///< prints on standard error that it is waiting for the agent
    ctl_progress progress = ctl_progress::none;
    bool consents = false;  ///< the operator accepts changes after which a new login would fail
};

/// A socket, closed at the end of its scope.
class ctl_socket {
  public:
    ctl_socket() = default;
    ~ctl_socket();
    ctl_socket(const ctl_socket&) = delete;
    ctl_socket& operator=(const ctl_socket&) = delete;

    int fd() const { return descriptor; }

    /// Closes an open socket and creates a new, unconnected one; 0 or an errno value.
    int reopen();

  private:
    int descriptor = -1;
};

/// Sends one request and returns the agent's answer. If none arrives, the answer is created here: its result is
/// unreachable (or failed, for a request that does not fit in a frame), and its message says why.
control_json ctl_ask(const ctl_connection_settings& settings, const control_json& request);

/// The same, but continues as long as an answer names a next request; returns the last answer.
control_json ctl_ask_to_the_end(const ctl_connection_settings& settings, const control_json& request);

/// Like ctl_ask, but keeps the connection of the answer open in `socket`.
control_json ctl_ask_on(ctl_socket& socket, const ctl_connection_settings& settings, const control_json& request);

/// Parses a document from the agent; returns an object with a result and a message if it is invalid.
control_json ctl_parse_answer(const std::string& document);

#endif
