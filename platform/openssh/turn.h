/// Servers that start together need the same answers from ssh and sshd. Whoever has the turn asks; the others wait for the
/// answer, which they find recorded.
#ifndef OPENSSH_TURN_H
#define OPENSSH_TURN_H

#include <chrono>
#include <string>

#include "common/file_descriptor.h"

namespace openssh {

/// The turn to ask, until the end of its scope. The answer may have been recorded by then, so look again.
class turn {
  public:
    /// Waits at most `limit` for the turn, which is a lock on the directory of the records. After that, or if the directory
    /// cannot be opened, the caller asks without it: a turn saves time, and nothing relies on it.
    turn(const std::string& directory, std::chrono::milliseconds limit);

  private:
    file_descriptor lock;
};

/// How long to wait for somebody else's answer, which takes tens of milliseconds.
constexpr std::chrono::milliseconds turn_limit{3000};

}  // namespace openssh

#endif
