/// How far the agent is with a request, while the operator waits for the answer.
#ifndef SSH_CFG_CTL_PROGRESS_H
#define SSH_CFG_CTL_PROGRESS_H

#include <cstdint>
#include <string>

#include "control_protocol/json_text.h"

enum class ctl_progress : uint8_t {
    none,
    terminal,  ///< one line on standard error that changes, and is gone at the end
    lines,     ///< lines on standard error
    json,      ///< JSON documents on standard output, one a line, before the answer
};

/// A report in words, such as "4 of 64: applying /cfg/gl/crypto/ssh/server/cmn/timeout".
std::string ctl_progress_text(const control_json& report);

/// Shows reports until the end of its scope.
class ctl_progress_display {
  public:
    explicit ctl_progress_display(ctl_progress form) : form_(form) {}
    ~ctl_progress_display();
    ctl_progress_display(const ctl_progress_display&) = delete;
    ctl_progress_display& operator=(const ctl_progress_display&) = delete;

    void show(const control_json& report);

  private:
    ctl_progress form_;
    std::string shown_;
};

#endif
