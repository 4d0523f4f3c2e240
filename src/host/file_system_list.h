/// The platform's list of file systems, published in shared memory for the other processes of the node.
#ifndef HOST_FILE_SYSTEM_LIST_H
#define HOST_FILE_SYSTEM_LIST_H

/// Publishes the platform's list: each name followed by one blank. 0, or -1 when the list cannot be had, exceeds the
/// object, or could not be written; reported.
int publish_filesystem_list();

/// Writes a text, cut to 1023 characters, into the object, which is made when it is missing and has 1024 bytes. What
/// stood there behind the new text's NUL stays. 0 or -1, reported.
int write_filesystem_list(const char* text);

#endif
