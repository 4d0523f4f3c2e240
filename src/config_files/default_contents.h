/// What the files hold after a start.
#ifndef CONFIG_FILES_DEFAULT_CONTENTS_H
#define CONFIG_FILES_DEFAULT_CONTENTS_H

/// Prepares the default server and client files: made empty when missing or when this is a fresh start, kept after a
/// failure. Returns 0 or -1.
int prepare_default_files();

/// Writes the lines that every start has, in their fixed order, into both default files.
void write_initial_lines();

#endif
