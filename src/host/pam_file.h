/// The PAM file of the SSH servers' service, and the watch that puts it back.
#ifndef HOST_PAM_FILE_H
#define HOST_PAM_FILE_H

#include <cstdint>

/// Writes the file when there is none. One that exists is left alone, whatever it holds. Failures are reported.
void write_pam_file();

/// Makes the inotify instance in agent.pam_inotify. 0, or -1 with errno.
int create_pam_inotify();

/// Watches the file's directory for deletions. 0, or -1 with errno.
int watch_pam_directory();

/// The instance has something to read: puts a deleted file back, and the watch when it was lost with its directory.
void pam_config_file_handler(int fd, uint32_t conditions, void* context);

#endif
