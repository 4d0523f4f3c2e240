/// The limits that a server's file sets. The defaults apply if it sets none.
#ifndef OPENSSH_SERVER_LIMITS_H
#define OPENSSH_SERVER_LIMITS_H

#include <cstdint>
#include <string>
#include <vector>

namespace openssh {

struct server_limits {
    uint32_t connections_per_minute = 60;
    uint32_t sessions = 64;
    std::vector<std::string> ports = {};  ///< to which they apply; empty: sshd's own default, port 22
};

inline constexpr uint32_t highest_limit = 1000;

}  // namespace openssh

#endif
