/// The tool's end of the control socket.
#ifndef SSH_CFG_CTL_CLIENT_H
#define SSH_CFG_CTL_CLIENT_H

#include <string>

#include "control_protocol/answer.h"

struct ctl_connection_settings {
    std::string socket_path;
    unsigned timeout;   ///< seconds without a sign of life
    bool tell_waiting;  ///< says on standard error that the agent takes its time
};

/// A socket, closed at the end of its scope.
class ctl_socket {
  public:
    ctl_socket() = default;
    ~ctl_socket();
    ctl_socket(const ctl_socket&) = delete;
    ctl_socket& operator=(const ctl_socket&) = delete;

    int fd() const { return descriptor; }

    /// Closes what was open and makes a new one, not connected; 0 or an errno value.
    int reopen();

  private:
    int descriptor = -1;
};

/// Sends one request and returns the agent's answer. When none comes, the answer is made here: its result is unreachable
/// (or failed, for a request that no frame can hold), its message says why.
control_json ctl_ask(const ctl_connection_settings& settings, const control_json& request);

/// The same, and goes on asking as long as an answer names a next request; returns the last answer.
control_json ctl_ask_to_the_end(const ctl_connection_settings& settings, const control_json& request);

/// As ctl_ask, and leaves the connection that the answer came on in `socket`.
control_json ctl_ask_on(ctl_socket& socket, const ctl_connection_settings& settings, const control_json& request);

/// The object that a document from the agent is; one with a result and a message when it cannot be read.
control_json ctl_parse_answer(const std::string& document);

#endif
