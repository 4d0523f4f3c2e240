/// Entries of the systemd journal in its native protocol (https://systemd.io/JOURNAL_NATIVE_PROTOCOL/).
#ifndef PLATFORM_COMMON_JOURNAL_ENTRY_H
#define PLATFORM_COMMON_JOURNAL_ENTRY_H

#include <string>
#include <string_view>

inline constexpr char journal_socket[] = "/run/systemd/journal/socket";

/// A field of an entry: "NAME=" and its value.
struct journal_field {
    const char* assignment;
    std::string value;
};

/// Appends a field to an entry. A value with a line break cannot forge another field.
void append_journal_field(std::string& entry, std::string_view assignment, std::string_view value);

/// Sends a datagram to the socket at `path` through `fd`, a datagram socket of AF_UNIX, without waiting. Returns 0 or
/// an errno.
int send_datagram(int fd, std::string_view path, std::string_view datagram) noexcept;

/// The service of a process, such as "sshd_service_red.service"; empty if it does not belong to one. `cgroup` is the
/// content of its /proc/PID/cgroup (cgroups(7)), of the unified hierarchy or of systemd's own.
std::string service_of_cgroup(std::string_view cgroup);

#endif
