/// Entries of the systemd journal in its native protocol (https://systemd.io/JOURNAL_NATIVE_PROTOCOL/).
#ifndef PLATFORM_COMMON_JOURNAL_ENTRY_H
#define PLATFORM_COMMON_JOURNAL_ENTRY_H

#include <string>
#include <string_view>

inline constexpr char journal_socket[] = "/run/systemd/journal/socket";

/// A field of an entry: the name with its equals sign ("NAME="), and the value.
struct journal_field {
    const char* assignment;
    std::string value;
};

/// Appends a field to an entry. A value that contains a line break is written with its length, so it cannot forge
/// another field.
void append_journal_field(std::string& entry, std::string_view assignment, std::string_view value);

/// Sends a datagram to the socket at `path` through `fd`, an AF_UNIX datagram socket, without blocking. Returns 0 or an
/// errno value.
int send_datagram(int fd, std::string_view path, std::string_view datagram) noexcept;

/// Returns the service that a process belongs to, such as "sshd_service_red.service", or an empty string if it belongs
/// to none. `cgroup` is the content of the process's /proc/PID/cgroup (cgroups(7)); only the lines of the unified
/// hierarchy and of systemd's own hierarchy are considered.
std::string service_of_cgroup(std::string_view cgroup);

#endif
