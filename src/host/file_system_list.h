/// The platform's list of file systems, published in shared memory for the other processes of the node.
#ifndef HOST_FILE_SYSTEM_LIST_H
#define HOST_FILE_SYSTEM_LIST_H

/// Publishes the platform's list: each name followed by one space. Returns 0, or -1 if the list cannot be read, does
/// not fit the object or cannot be written; failures are logged.
int publish_filesystem_list();

/// Writes a text, cut to 1023 characters, into the 1024-byte object, creating it if necessary. Bytes after the new
/// text's NUL are left as they are. Returns 0 or -1; failures are logged.
int write_filesystem_list(const char* text);

#endif
