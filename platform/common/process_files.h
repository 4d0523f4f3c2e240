/// Files below /proc/PID (proc(5)).
#ifndef COMMON_PROCESS_FILES_H
#define COMMON_PROCESS_FILES_H

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>

/// Returns the path of a process's file, such as "/proc/17/ns/net" for "ns/net". May throw std::bad_alloc.
std::string process_file(pid_t process, const char* name);

/// Returns the inode numbers of the sockets that a process has open, or an empty set if the process has ended. May throw
/// std::bad_alloc.
std::set<uint64_t> process_sockets(pid_t process);

#endif
