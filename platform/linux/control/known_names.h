/// Names that are known on this machine and may appear in a path.
#ifndef LINUX_CONTROL_KNOWN_NAMES_H
#define LINUX_CONTROL_KNOWN_NAMES_H

#include <string>
#include <vector>

/// Returns the names of the VRFs that have a network namespace.
std::vector<std::string> control_known_vrfs();

/// Returns the names that may take the place of the schema's "*" directly below `folder`, an absolute path that ends in
/// '/': the names that are configured there and, for servers and keys, also the machine's VRFs and users. The names are
/// sorted, at most 1000 are returned, and names that the schema would refuse are omitted.
std::vector<std::string> control_known_names(const std::string& folder);

#endif
