/// Names that this machine knows and that may stand in a path.
#ifndef LINUX_CONTROL_KNOWN_NAMES_H
#define LINUX_CONTROL_KNOWN_NAMES_H

#include <string>
#include <vector>

/// The VRFs that have a network namespace.
std::vector<std::string> control_known_vrfs();

/// The names that may follow an absolute path, which ends in '/', in place of the schema's "*": those configured there and,
/// for servers and keys, the machine's VRFs and users. Sorted; at most about 1000; none that the schema would refuse.
std::vector<std::string> control_known_names(const std::string& folder);

#endif
