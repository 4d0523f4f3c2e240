/// The PAM file of the SSH servers' service, and the watch that restores it.
#ifndef HOST_PAM_FILE_H
#define HOST_PAM_FILE_H

#include <cstdint>

/// Writes the file if it does not exist. An existing file is left alone, whatever its content. Failures are logged.
void write_pam_file();

/// Writes the file, also in place of one with another content. Failures are logged.
void write_pam_file_again();

bool pam_file_exists();

/// "is missing", "differs from the agent's", or null.
const char* pam_file_difference();

/// Creates the inotify instance in agent_handles.pam_inotify. Returns 0, or -1 with errno set.
int create_pam_inotify();

/// Watches the file's directory for deletions. Returns 0, or -1 with errno set.
int watch_pam_directory();

/// Reads the inotify events: restores a deleted file, and the watch if it was lost with its directory.
void pam_config_file_handler(int fd, uint32_t conditions, void* context);

#endif
