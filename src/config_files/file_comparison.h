/// Comparison of configuration files by what they mean: the values of their keywords.
///
/// The order of the lines, the number of spaces and the distribution of host keys over lines are irrelevant.
#ifndef CONFIG_FILES_FILE_COMPARISON_H
#define CONFIG_FILES_FILE_COMPARISON_H

#include <string>
#include <vector>

/// A keyword with its value: the rest of its line, with single blanks. "HostKey" has the values of all its lines, sorted.
struct keyword_value {
    std::string keyword;
    std::string value;
};

/// The lines that a file has only for its VRF: its ports and the NETCONF subsystem, sorted.
using vrf_lines = std::vector<std::string>;

struct file_values {
    std::vector<keyword_value> settings;  ///< the first line of each keyword, in the order of the file
    vrf_lines own_lines;
};

// All functions may throw std::bad_alloc.

/// Reads a file. Returns 0, or -1 with errno.
int read_file_values(const char* path, file_values* values);

/// The expected lines of the server's default file and of the client's file.
std::vector<keyword_value> wanted_server_settings();
std::vector<keyword_value> wanted_client_settings();

/// The keywords in which two lists of settings differ, in the order of `wanted`, then those that only `present` has. A
/// missing keyword has its default, except the settings that every start writes.
std::vector<std::string> differing_server_keywords(const std::vector<keyword_value>& wanted,
                                                   const std::vector<keyword_value>& present);
std::vector<std::string> differing_client_keywords(const std::vector<keyword_value>& wanted,
                                                   const std::vector<keyword_value>& present);

/// Rewrite a keyword's line as the tables require, or remove it. Return 0, or -1 with errno.
int write_server_line_again(const std::string& keyword);
int write_client_line_again(const std::string& keyword);

/// The value of a keyword, or null.
const std::string* value_of(const std::vector<keyword_value>& settings, const std::string& keyword);

#endif
