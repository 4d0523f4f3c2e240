/// Servers that do not run with their current file because sshd rejected it.
///
/// The launcher then starts the server with the last good file, so that nobody is locked out, and systemd considers the
/// unit running.
#ifndef LINUX_ENFORCEMENT_SERVER_FILES_H
#define LINUX_ENFORCEMENT_SERVER_FILES_H

#include <string>
#include <vector>

struct server_file_difference {
    std::string subject;
    std::string text;
};

/// One difference, under the subject "server file VRF" or "local directives VRF", for each running server that uses an earlier file, with sshd's own
/// message. Reads the launchers' records (common/launch_record.h). Throws std::bad_alloc.
/// Local directives that are refused, or left out, are among them.
std::vector<server_file_difference> server_file_differences();

/// Reports these servers as not in force, and the others as in force. Does nothing when out of memory.
void server_files_report();

#endif
