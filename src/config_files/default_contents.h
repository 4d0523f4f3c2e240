/// What the files contain after start-up.
#ifndef CONFIG_FILES_DEFAULT_CONTENTS_H
#define CONFIG_FILES_DEFAULT_CONTENTS_H

/// Prepares the default server and client files: creates them empty if they are missing or this is a fresh start, keeps
/// them after a failure. Returns 0 or -1.
int prepare_default_files();

/// Writes the lines that every start writes, in their fixed order, into both default files.
void write_initial_lines();

#endif
